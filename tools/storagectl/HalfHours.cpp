#include "tools/storagectl/HalfHours.h"

#include "bus/Clock.h"
#include "bus/PubSubInterface.h"
#include "core/shared/Tokens.h"
#include "tools/storagectl/HistoryOptions.h"

#include <QDateTime>
#include <QRandomGenerator>
#include <QTimeZone>
#include <QtEndian>

#include <algorithm>
#include <bit>
#include <limits>

namespace storagectl {

namespace {

constexpr int kLookupCommand = 230;
constexpr int kEnd = 0;
constexpr int kGaugeValues = 1;
constexpr int kMostMinutes = 30;
constexpr qint64 kMinuteSeconds = 60;
constexpr qint64 kDaySeconds = 86'400;

qint64 wholeMinute(qint64 seconds) {
    return seconds - seconds % kMinuteSeconds;
}

}  // namespace

HalfHours::HalfHours(PubSubInterface& bus, const LookupOptions& options, int timeoutMilliseconds)
    : _bus(bus),
      _options(options),
      _gaugeList(options.gauges.join('\n')),
      _timeoutMilliseconds(timeoutMilliseconds),
      _nextStart(wholeMinute(options.from)),
      _last(wholeMinute(options.to)) {}

void HalfHours::add() {
    const qint64 midnight = _nextStart - _nextStart % kDaySeconds + kDaySeconds;
    const qint64 end =
        std::min({_nextStart + kMostMinutes * kMinuteSeconds, _last + kMinuteSeconds, midnight});
    Request request;
    request.half.start = _nextStart;
    request.half.minutes = static_cast<int>((end - _nextStart) / kMinuteSeconds);
    _underWay.push_back(request);
    send(_underWay.back());
    _nextStart = end;
}

void HalfHours::send(Request& request) {
    request.tag = QRandomGenerator::system()->bounded(1, std::numeric_limits<int>::max());
    ++request.asks;
    request.has.assign(static_cast<std::size_t>(_options.gauges.size()), false);
    request.half.values.assign(request.has.size(), {});
    const QDateTime start = QDateTime::fromSecsSinceEpoch(request.half.start, QTimeZone::utc());
    Message message;
    message.construct(kLookupCommand, "SiiSSS", _options.job.constData(), _options.second ? 1 : 0,
                      request.tag, start.toString("yyyy-MM-dd").toLatin1().constData(),
                      start.toString("hh:mm:ss").toLatin1().constData(), _gaugeList.constData());
    _bus.sendTokenMessage(Tokens::kStorageManager, message);
    _lastNews = Clock::ticks();
}

void HalfHours::ask() {
    while (_nextStart <= _last && _underWay.size() < kMostUnderWay) {
        add();
    }
    // The daemon answers in the order of its requests, so news of one is progress for all.
    if (Clock::ticksSince(_lastNews) < _timeoutMilliseconds) {
        return;
    }
    for (Request& request : _underWay) {
        if (request.half.isAnswered) {
            continue;
        }
        if (request.asks < kMostAsks) {
            send(request);
        } else {
            request.isGivenUp = true;
        }
    }
}

HalfHours::Request* HalfHours::find(int tag) {
    const auto found = std::find_if(
        _underWay.begin(), _underWay.end(),
        [tag](const Request& request) { return request.tag == tag && !request.half.isAnswered; });
    return found == _underWay.end() ? nullptr : &*found;
}

void HalfHours::take(const char* data, int length) {
    Message message;
    message.construct(data, length);
    const bool isValues =
        message.command() == kGaugeValues && qstrcmp(message.formatString(), "iiiB") == 0;
    const bool isEnd = message.command() == kEnd && qstrcmp(message.formatString(), "iii") == 0;
    if (!isValues && !isEnd) {
        return;
    }
    Request* const request = find(message.parameterAsInt32(isValues ? 2 : 1));
    if (request != nullptr &&
        (isValues ? takeValues(message, *request) : takeEnd(message, *request))) {
        _lastNews = Clock::ticks();
    }
}

bool HalfHours::takeValues(const Message& message, Request& request) const {
    const auto gauge = static_cast<std::size_t>(message.parameterAsInt32(0));
    int length = 0;
    const char* const block = message.parameterAsBLOB(3, length);
    const int count = length / static_cast<int>(sizeof(float));
    if (gauge >= request.has.size() || count * static_cast<int>(sizeof(float)) != length ||
        count > kMostMinutes) {
        return false;
    }
    std::vector<float> values;
    for (int i = 0; i < std::min(count, request.half.minutes); ++i) {
        const char* const at = block + static_cast<std::size_t>(i) * sizeof(float);
        values.push_back(std::bit_cast<float>(qFromLittleEndian<quint32>(at)));
    }
    request.half.values[gauge] = std::move(values);
    request.has[gauge] = true;
    return true;
}

bool HalfHours::takeEnd(const Message& message, Request& request) const {
    const auto start = static_cast<quint32>(message.parameterAsInt32(2));
    const bool isWhole =
        std::find(request.has.begin(), request.has.end(), false) == request.has.end();
    request.half.isAnswered = isWhole && start == request.half.start;
    return request.half.isAnswered;
}

std::optional<HalfHour> HalfHours::next() {
    if (_underWay.empty() || !(_underWay.front().half.isAnswered || _underWay.front().isGivenUp)) {
        return std::nullopt;
    }
    HalfHour half = std::move(_underWay.front().half);
    _underWay.pop_front();
    return half;
}

}  // namespace storagectl
