#include "tools/storagectl/RemoteCopy.h"

#include "tools/storagectl/Download.h"
#include "tools/storagectl/LocalSource.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <utility>

namespace storagectl {

namespace {

/// A temporary file without a name, gone with its last descriptor.
class NamelessFile : public Sink {
public:
    NamelessFile() : _descriptor(create()) {}
    ~NamelessFile() override {
        if (_descriptor >= 0) {
            ::close(_descriptor);
        }
    }
    NamelessFile(const NamelessFile&) = delete;
    NamelessFile& operator=(const NamelessFile&) = delete;

    bool exists() const { return _descriptor >= 0; }
    int release() { return std::exchange(_descriptor, -1); }

    Outcome append(const QByteArray& bytes) override {
        qint64 written = 0;
        while (written < bytes.size()) {
            const ssize_t step = ::write(_descriptor, bytes.constData() + written,
                                         static_cast<std::size_t>(bytes.size() - written));
            if (step < 0 && errno != EINTR) {
                return localFailure("a temporary file", "cannot be written");
            }
            written += qMax<ssize_t>(0, step);
        }
        return Outcome::done();
    }
    bool startOver() override {
        return ::ftruncate(_descriptor, 0) == 0 && ::lseek(_descriptor, 0, SEEK_SET) == 0;
    }

private:
    static int create() {
        QByteArray name = qEnvironmentVariable("TMPDIR", "/tmp").toUtf8() + "/storagectl.XXXXXX";
        const int descriptor = ::mkostemp(name.data(), O_CLOEXEC);
        if (descriptor >= 0) {
            ::unlink(name.constData());
        }
        return descriptor;
    }

    int _descriptor;
};

}  // namespace

Outcome fetchToTemporary(Context& context, const QByteArray& path, int& descriptor) {
    NamelessFile file;
    if (!file.exists()) {
        return localFailure("a temporary file", "cannot be created");
    }
    PieceDigests digests;
    Progress progress(context.output, text(path));
    Download download({context.files, context.output, progress, context.options.retries}, path,
                      file, digests);
    const Outcome outcome = download.run();
    if (outcome.isDone()) {
        descriptor = file.release();
    }
    return outcome;
}

}  // namespace storagectl
