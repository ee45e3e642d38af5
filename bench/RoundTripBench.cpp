#include "bench/BusFixture.h"
#include "bench/PairedTiming.h"
#include "bus/Message.h"
#include "bus/PubSubInterface.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace {

constexpr int kRoundTrips = 100;
constexpr char kBareRequests[] = "bare/request";
constexpr char kBareReplies[] = "bare/reply";
constexpr char kLibraryRequests[] = "library.request";
constexpr char kLibraryReplies[] = "library.reply";

/// The near end on the bus library, as LibraryEcho is the far one.
class LibraryClient {
public:
    LibraryClient() : _bus(nullptr) {
        if (!_bus.initialize("library-client", takeAnswer, this, 65536, 65536, 0,
                             IOPriority::Unchanged) ||
            !_bus.addWantedToken(kLibraryReplies)) {
            throw std::runtime_error("no bus");
        }
    }

    void waitUntilAnswered(const Message& message) {
        _expectedBytes = message.length();
        for (int tries = 0; _answers == 0; ++tries) {
            if (tries == 100) {
                throw std::runtime_error("the library's echo does not answer");
            }
            _bus.sendTokenMessage(kLibraryRequests, message);
            _bus.readWaitingMessages(100);
        }
        _bus.readWaitingMessages(100);
    }

    void exchange(const Message& message, int count) {
        _expectedBytes = message.length();
        for (int i = 0; i < count; ++i) {
            _answers = 0;
            _bus.sendTokenMessage(kLibraryRequests, message);
            while (_answers == 0) {
                _bus.readWaitingMessages(BusFixture::kAnswerMilliseconds);
            }
        }
        if (_hasWrongAnswer) {
            throw std::runtime_error("the library's echo answered something else");
        }
    }

private:
    static void takeAnswer(void* context, PubSubMessage* delivery) {
        auto* client = static_cast<LibraryClient*>(context);
        Message answer;
        answer.construct(delivery->data, delivery->length);
        client->_hasWrongAnswer |= answer.length() != client->_expectedBytes;
        ++client->_answers;
    }

    PubSubInterface _bus;
    int _answers = 0;
    int _expectedBytes = 0;
    bool _hasWrongAnswer = false;
};

Message messageOf(int bytes) {
    constexpr int kHeaderBytes = 4 + 2 + 4;  // command, "B" and its NUL, block length
    const std::string block(static_cast<std::size_t>(bytes - kHeaderBytes), 'x');
    Message message;
    message.construct(1000, "B", bytes - kHeaderBytes, block.data());
    return message;
}

class EchoPair {
public:
    EchoPair() : _bus({kBareReplies}) {
        setenv("SCADA_BUS_URL", _bus.broker().url().c_str(), 1);
        _bareEcho.start(
            {{BARE_ECHO_PROGRAM, _bus.broker().socketPath(), kBareRequests, kBareReplies}, {}, 0});
        _libraryEcho.start({{LIBRARY_ECHO_PROGRAM, kLibraryRequests, kLibraryReplies},
                            {{"SCADA_BUS_URL", _bus.broker().url()}},
                            0});
        _library = std::make_unique<LibraryClient>();
        _library->waitUntilAnswered(messageOf(100));
        _bus.waitUntilAnswered({kBareRequests, {"ready?"}, 0});
    }

    void measure(benchmark::State& state) {
        const Message message = messageOf(static_cast<int>(state.range(0)));
        const std::string bytes(message.buffer(), static_cast<std::size_t>(message.length()));
        const BusFixture::Request request{kBareRequests, {bytes}, bytes.size()};
        PairedTiming timing(kRoundTrips);
        for (auto _ : state) {
            state.SetIterationTime(timing.turn([&] { _library->exchange(message, kRoundTrips); },
                                               [&] { _bus.exchange(request, kRoundTrips, 1); }));
        }
        timing.report(state);
    }

private:
    BusFixture _bus;
    ChildProcess _bareEcho;
    ChildProcess _libraryEcho;
    std::unique_ptr<LibraryClient> _library;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    pinToOneCore();
    EchoPair echoes;
    benchmark::RegisterBenchmark("roundTrip",
                                 [&](benchmark::State& state) { echoes.measure(state); })
        ->Arg(100)
        ->Arg(4096)
        ->UseManualTime();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
