#include "tests/fuzz/FuzzRecording.h"

#include "tests/support/DataFileBytes.h"
#include "tests/support/RecordedSource.h"

namespace {

constexpr int kRawFile = 3;
constexpr int kFieldsFollow = 4;
constexpr int kTypeRows = 8;
/// So that a short input makes a long recording.
constexpr int kMostRepeats = 255;
constexpr quint32 kNear = 1'714'557'600;

void addRecords(RecordedSource& source, FuzzInput& input) {
    static constexpr int kTypes[kTypeRows] = {5, 5, 90, 252, 254, 255, 100, 60};
    const int choice = input.takeByte();
    const int type = kTypes[choice % kTypeRows];
    const QByteArray payload = QByteArray::fromStdString(input.takeBlock());
    const int repeats = choice >= 0x80 ? input.takeByte() % (kMostRepeats + 1) : 1;
    for (int i = 0; i < repeats; ++i) {
        source.shortStep(choice / kTypeRows % 4 * 20).record(type, payload);
    }
}

}  // namespace

QByteArray takeRecording(FuzzInput& input) {
    const int choice = input.takeByte();
    if (choice % 4 == kRawFile) {
        return QByteArray::fromStdString(input.takeBlock());
    }
    RecordedSource source;
    for (int i = 0; i < choice % 4; ++i) {
        const int type = input.takeByte();
        source.describe(type, input.takeByte());
    }
    DataFileBytes::setField(source.bytes, 4, kNear);
    if (choice & kFieldsFollow) {
        for (const int field : {0, 8, 76}) {
            DataFileBytes::setField(source.bytes, field, static_cast<quint32>(input.takeInteger()));
        }
    }
    for (int parts = choice / 16; parts > 0; --parts) {
        switch (input.takeByte() % 4) {
            case 0:
                source.at(kNear + static_cast<quint32>(input.takeInteger()));
                break;
            case 1:
                source.step(input.takeInteger());
                break;
            case 2:
                source.bytes += QByteArray::fromStdString(input.takeBlock());
                break;
            default:
                addRecords(source, input);
        }
    }
    return source.bytes;
}
