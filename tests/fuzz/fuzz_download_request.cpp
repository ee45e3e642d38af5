#include "bus/DebugText.h"
#include "tests/fuzz/DownloadRun.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/UnitRoots.h"

/// Any request, on the unit's few files: each line of it is exactly one item of the stream, in
/// order, and the stream is whole, whatever the lines are. Nothing stays open.

namespace {

/// Lines as a client makes them, most of them, and any bytes.
QString takeRequest(FuzzInput& input) {
    QString request;
    while (!input.isAtEnd() && request.size() < 4096) {
        const unsigned choice = input.takeByte();
        if (choice % 4 == 0) {
            request += QString::fromStdString(input.takeBlock());
        } else {
            request += QString::fromStdString(input.takeText());
        }
        if (choice % 8 >= 4) {
            request += '|' + QString::fromStdString(input.takeBlock()) + '|' +
                       QString::number(input.takeInteger());
        }
        if (!input.isAtEnd()) {
            request += '\n';
        }
    }
    return request;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const UnitRoots roots;
    DebugText::setSink([](const char*, std::size_t) {});
    roots.reset();
    const UnitRoots::Descriptors before = UnitRoots::descriptors();
    FuzzInput input(data, size);
    const QString request = takeRequest(input);
    const DownloadDecoder decoder = DownloadRun::decoded(
        request, [](LZFDownloadRemoteJob& job, FakeClock&) { job.handleWriteCount(0); });
    REQUIRE(static_cast<qsizetype>(decoder.items().size()) == request.count('\n') + 1);
    REQUIRE(UnitRoots::descriptors().all == before.all);
    return 0;
}
