#include "tools/sample/SampleUnit.h"

#include <cstdio>

int main(int argc, char** argv) {
    sample::Options options;
    const auto ended = sample::parseCommandLine(argc, argv, options);
    if (ended) {
        return *ended;
    }
    const QString problem = sample::SampleUnit(options).write();
    if (!problem.isEmpty()) {
        std::fprintf(stderr, "make-sample-unit: %s\n", qUtf8Printable(problem));
        return 1;
    }
    return 0;
}
