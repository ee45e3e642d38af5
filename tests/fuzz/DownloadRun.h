#pragma once

#include "jobs/LZFDownloadRemoteJob.h"
#include "jobs/RemoteJobManager.h"
#include "tests/fuzz/Require.h"
#include "tests/support/DownloadDecoder.h"
#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"

/// One download to its end, decoded. `beforeSlice` is called with the job and the clock before each
/// slice.
class DownloadRun {
public:
    template <typename BeforeSlice>
    static DownloadDecoder decoded(const QString& request, BeforeSlice beforeSlice) {
        FakeClock clock;
        FakeBus bus;
        RemoteJobManager manager;
        auto* job = new LZFDownloadRemoteJob(&manager, kConnection, kTransfer, request);
        manager.addJob(job);
        bus.takeSent();
        DownloadDecoder decoder;
        for (int slice = 0; !manager.jobs().isEmpty(); ++slice) {
            REQUIRE(slice < kMostSlices);
            beforeSlice(*job, clock);
            manager.runSlice();
            for (const FakeBus::Sent& sent : bus.takeSent()) {
                take(sent, decoder);
            }
        }
        REQUIRE(decoder.isComplete());
        return decoder;
    }

private:
    static constexpr int kConnection = 1;
    static constexpr int kTransfer = 2;
    static constexpr int kMostSlices = 100'000;

    static void take(const FakeBus::Sent& sent, DownloadDecoder& decoder) {
        REQUIRE(sent.connection == kConnection);
        REQUIRE(sent.message.command() == 0x14B0);
        REQUIRE(sent.message.parameterAsInt32(0) == kTransfer);
        int length = 0;
        const char* const piece = sent.message.parameterAsBLOB(1, length);
        REQUIRE(length <= 8150);
        decoder.add({piece, static_cast<std::size_t>(length)});
    }
};
