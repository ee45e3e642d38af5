#pragma once

/// The unit's fixed roots inside the tests' sandbox, as each run of the protocol finds them.
class UnitRoots {
public:
    /// Ends the program unless the roots are empty, as only a sandbox has them: `reset` deletes
    /// all that they hold. Also limits how long a file can become, so that no input hashes
    /// gigabytes.
    UnitRoots();

    /// A few files and folders, a pipe without a writer, and a link to itself.
    void reset() const;

    /// How many of this process's descriptors are open on files under the roots, and how many
    /// there are at all.
    struct Descriptors {
        int underRoots = 0;
        int all = 0;
    };
    static Descriptors descriptors();
};
