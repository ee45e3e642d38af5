#include "tools/storagectl/Commands.h"

#include "bus/Clock.h"
#include "bus/PubSubInterface.h"
#include "tools/storagectl/Interrupt.h"

#include <QElapsedTimer>

namespace storagectl {

namespace {

constexpr int kQuitCommand = 1;
constexpr char kDaemonCommands[] = "StorageManager.to";
constexpr quint32 kPingPauseMilliseconds = 1000;
// Never issued, so that closing it costs nothing and always brings the bare reply.
constexpr int kNoHandle = -1;

struct RoundTrips {
    int sent = 0;
    int received = 0;
    double minimum = 0;
    double maximum = 0;
    double sum = 0;

    void add(double milliseconds) {
        minimum = received == 0 ? milliseconds : qMin(minimum, milliseconds);
        maximum = qMax(maximum, milliseconds);
        sum += milliseconds;
        ++received;
    }
    double average() const { return received == 0 ? 0 : sum / received; }
};

void pause(PubSubInterface& bus) {
    const quint32 start = Clock::ticks();
    while (Clock::ticks() - start < kPingPauseMilliseconds && !Interrupt::requested()) {
        bus.readWaitingMessages(
            static_cast<int>(kPingPauseMilliseconds - (Clock::ticks() - start)));
    }
}

void report(Output& output, const RoundTrips& trips) {
    output.object({{"command", "ping"},
                   {"sent", trips.sent},
                   {"received", trips.received},
                   {"minimum", trips.minimum},
                   {"average", trips.average()},
                   {"maximum", trips.maximum}});
    if (trips.sent > 1) {
        QString text = QString("%1 sent, %2 answered").arg(trips.sent).arg(trips.received);
        if (trips.received > 0) {
            text += QString(", round trip min/avg/max %1/%2/%3 ms")
                        .arg(trips.minimum, 0, 'f', 3)
                        .arg(trips.average(), 0, 'f', 3)
                        .arg(trips.maximum, 0, 'f', 3);
        }
        output.talk(text);
    }
}

}  // namespace

Message pingRequest() {
    Message request;
    request.construct(MESSAGE_FILE_CLOSE, "i", kNoHandle);
    return request;
}

Answer pingOnce(FileService& files, double& milliseconds) {
    Message reply;
    QElapsedTimer timer;
    timer.start();
    const Answer answer = files.connection().ask(pingRequest(), reply);
    milliseconds = static_cast<double>(timer.nsecsElapsed()) / 1e6;
    // Refused is the answer to be had; what matters is that one came.
    const bool answered = answer == Answer::Refused || answer == Answer::Success;
    return answered ? Answer::Success : answer;
}

ExitCode ping(Context& context) {
    Output& output = context.output;
    const int count = qMax(1, context.options.count);
    RoundTrips trips;
    Outcome failure;
    while (trips.sent < count && failure.code != ExitCode::Interrupted && !output.isClosed()) {
        if (trips.sent > 0) {
            pause(context.files.connection().bus());
        }
        double milliseconds = 0;
        const Answer answer = pingOnce(context.files, milliseconds);
        ++trips.sent;
        if (answer == Answer::Success) {
            trips.add(milliseconds);
            output.object(
                {{"command", "ping"}, {"sequence", trips.sent}, {"milliseconds", milliseconds}});
            output.line(QString("answer %1: %2 ms").arg(trips.sent).arg(milliseconds, 0, 'f', 3));
            continue;
        }
        failure = outcomeOf(answer, QString("ping %1").arg(trips.sent));
        output.error(failure);
        if (trips.sent < count && answer != Answer::Interrupted) {
            context.files.connection().startAfresh();
        }
    }
    report(output, trips);
    const bool isPartly =
        trips.received > 0 && !failure.isDone() && failure.code != ExitCode::Interrupted;
    return isPartly ? ExitCode::Partly : failure.code;
}

ExitCode quit(Context& context) {
    double milliseconds = 0;
    Outcome outcome = outcomeOf(pingOnce(context.files, milliseconds), "quit");
    if (outcome.isDone()) {
        Message request;
        request.construct(kQuitCommand, "");
        PubSubInterface& bus = context.files.connection().bus();
        if (!bus.sendTokenMessage(kDaemonCommands, request)) {
            outcome = outcomeOf(Answer::NoBroker, "quit");
        }
    }
    if (!outcome.isDone()) {
        context.output.error(outcome);
        return outcome.code;
    }
    context.output.object({{"command", "quit"}});
    context.output.talk("asked the daemon to end");
    return ExitCode::Done;
}

}  // namespace storagectl
