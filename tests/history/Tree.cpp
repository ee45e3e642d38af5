#include "tests/history/Tree.h"

#include "tests/support/Files.h"

void writeTree(const Tree& tree) {
    emptyRoots();
    for (auto file = tree.begin(); file != tree.end(); ++file) {
        writeTestFile(file.key(), file.value());
    }
}
