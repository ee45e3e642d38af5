#include "history/DataEvent.h"
#include "tests/fuzz/Require.h"

#include <QBuffer>
#include <QtEndian>

#include <algorithm>
#include <cstdint>

/// Any bytes as a log of decoder events: each event is what its head says, its text as far as the
/// log goes, one that is refused changes nothing, and one that was read is written as it stood.

namespace {

constexpr qint64 kHeadBytes = 16;

bool isSame(const DataEvent& one, const DataEvent& other) {
    return one.type() == other.type() && one.start() == other.start() && one.end() == other.end() &&
           one.text() == other.text();
}

QByteArray bytesOf(const DataEvent& event) {
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    REQUIRE(event.serialize(&buffer));
    return buffer.data();
}

void checkShift(DataEvent event, int delta) {
    const DataEvent before = event;
    event.shift(delta);
    const auto shifted = [delta](int position) {
        return position < 0 ? position : std::min<qint64>(qint64{position} + delta, INT32_MAX);
    };
    REQUIRE(event.start() == shifted(before.start()));
    REQUIRE(event.end() == shifted(before.end()));
}

/// Reads the event at the beginning of `log`; the bytes that it took, 0 where there is none.
qint64 checkEvent(DataEvent& event, const QByteArray& log, QIODevice& device) {
    const DataEvent before = event;
    const qint64 from = device.pos();
    const qint32 claimed =
        log.size() < kHeadBytes ? -1 : qFromLittleEndian<qint32>(log.constData() + 12);
    REQUIRE(event.unSerialize(&device) == (claimed >= 0));
    if (claimed < 0) {
        REQUIRE(isSame(event, before));
        return 0;
    }
    const qint64 textBytes = std::min<qint64>(claimed, log.size() - kHeadBytes);
    REQUIRE(device.pos() - from == kHeadBytes + textBytes);
    REQUIRE(event.text().size() == textBytes);
    const QByteArray written = bytesOf(event);
    REQUIRE(written.left(12) == log.left(12));
    REQUIRE(qFromLittleEndian<qint32>(written.constData() + 12) == textBytes);
    REQUIRE(written.mid(kHeadBytes) == log.mid(kHeadBytes, textBytes));
    checkShift(event, claimed);
    checkShift(event, event.type());
    REQUIRE(!DataEvent::typeString(event.type()).isEmpty());
    return kHeadBytes + textBytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    QByteArray log(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    QBuffer device(&log);
    device.open(QIODevice::ReadOnly);
    DataEvent event;
    for (qint64 taken = 0, at = 0; (taken = checkEvent(event, log.mid(at), device)) > 0;) {
        at += taken;
    }
    return 0;
}
