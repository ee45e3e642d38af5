#include "tools/storagectl/Commands.h"
#include "tools/storagectl/Interrupt.h"
#include "tools/storagectl/LookupReport.h"

#include "bus/PubSubInterface.h"
#include "core/shared/Tokens.h"

namespace storagectl {

namespace {

constexpr int kSubscriptionMilliseconds = 2000;
constexpr int kWaitMilliseconds = 250;

/// Where the daemon looked, for those who find nothing.
QString places(const LookupOptions& options) {
    const QString folder = options.job.isEmpty() ? QString() : '/' + text(options.job);
    return QString("/root/data%1/gauges/DAY/GAUGE/calcData.gdf and the same below /mmc")
        .arg(folder);
}

Outcome lookUpAll(Context& context, HalfHours& halfHours, LookupReport& report) {
    PubSubInterface& bus = context.files.connection().bus();
    while (!halfHours.isDone() && !context.output.isClosed()) {
        if (Interrupt::requested()) {
            return Outcome::failure(ExitCode::Interrupted, "lookup: interrupted");
        }
        halfHours.ask();
        bus.readWaitingMessages(kWaitMilliseconds);
        while (const std::optional<HalfHour> half = halfHours.next()) {
            if (!half->isAnswered && !bus.isConnected()) {
                return outcomeOf(Answer::NoBroker, "lookup");
            }
            report.add(*half);
        }
    }
    return Outcome::done();
}

Outcome verdict(const LookupOptions& options, const LookupReport& report) {
    if (!report.unanswered().isEmpty()) {
        const bool isPartly = report.answeredMinutes() > 0;
        return Outcome::failure(isPartly ? ExitCode::Partly : ExitCode::Failed,
                                QString("not answered, asked %1 times: %2")
                                    .arg(HalfHours::kMostAsks)
                                    .arg(report.unanswered().join(", ")));
    }
    const QStringList empty = report.emptyGauges();
    if (empty.isEmpty()) {
        return Outcome::done();
    }
    return Outcome::failure(
        empty.size() < options.gauges.size() ? ExitCode::Partly : ExitCode::NotFound,
        empty.join(", ") + ": no sample in all this time, looked for in " + places(options));
}

}  // namespace

ExitCode lookup(Context& context) {
    const LookupOptions& options = context.options.lookup;
    Connection& connection = context.files.connection();
    double milliseconds = 0;
    Outcome outcome = outcomeOf(pingOnce(context.files, milliseconds), "lookup");
    HalfHours halfHours(connection.bus(), options, context.options.timeoutSeconds * 1000);
    LookupReport report(context.output, options);
    if (outcome.isDone()) {
        connection.listen({Tokens::kGaugeData},
                          [&](const QByteArray&, const PubSubMessage& delivery) {
                              halfHours.take(delivery.data, delivery.length);
                          });
        connection.bus().awaitSubscriptions(kSubscriptionMilliseconds);
        report.begin();
        outcome = lookUpAll(context, halfHours, report);
        connection.listen({}, nullptr);
        report.finish();
        outcome =
            outcome.isDone() && !context.output.isClosed() ? verdict(options, report) : outcome;
    }
    if (!outcome.isDone()) {
        context.output.error(outcome);
    }
    return outcome.code;
}

}  // namespace storagectl
