#include "tests/fuzz/FuzzHistory.h"
#include "tests/fuzz/FuzzRecording.h"
#include "tests/fuzz/Require.h"
#include "tests/history/LookupModel.h"

#include <QStringList>

#include <cstdint>
#include <cstring>

/// Any bytes as the recordings of two gauges on both storages and two days: the answers are those
/// of a plain model, one for each line of the list, and then comes the end.

namespace {

const QStringList kGauges = {"A", "", "B"};
constexpr quint32 kMidnight = 1'714'521'600;

void checkAnswer(const FakeBus::Sent& sent, int index, LookupModel& model) {
    const Message& answer = sent.message;
    REQUIRE(sent.token == "HistoricalData.gaugeData");
    REQUIRE(answer.command() == 1);
    REQUIRE(std::strcmp(answer.formatString(), "iiiB") == 0);
    REQUIRE(answer.parameterAsInt32(0) == index);
    REQUIRE(answer.parameterAsInt32(1) == model.valueSelector);
    int length = 0;
    const char* const block = answer.parameterAsBLOB(3, length);
    REQUIRE(length <= 120);
    REQUIRE(QByteArray(block, length) == model.answer(index, kGauges[index]));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    // Ten o'clock, or that many half hours later, over midnight at last.
    const int choice = input.takeByte();
    const quint32 timeOfDay = static_cast<quint32>(36'000 + choice / 8 % 28 * 1800);
    LookupModel model{{}, "well", choice % 4 - 1, kMidnight, timeOfDay, {}};
    for (const char* place :
         {"/root/data/well/gauges/2024-05-01/A", "/mmc/well/gauges/2024-05-01/A",
          "/root/data/well/gauges/2024-05-01/B", "/root/data/well/gauges/2024-05-02/A",
          "/mmc/well/gauges/2024-05-02/B"}) {
        if (input.takeByte() % 4 != 0) {
            model.tree[QString(place) + "/calcData.gdf"] = takeRecording(input);
        }
    }
    FuzzHistory history(model.tree);
    FuzzHistory::playToItsEnd([&] {
        history.manager().lookup(
            "well", model.valueSelector, 9, "2024-05-01",
            QString::asprintf("%02u:%02u:00", timeOfDay / 3600, timeOfDay / 60 % 60),
            kGauges.join('\n'));
    });
    const QList<FakeBus::Sent> sent = history.bus().takeSent();
    REQUIRE(sent.size() == kGauges.size() + 1);
    for (int i = 0; i < kGauges.size(); ++i) {
        checkAnswer(sent[i], i, model);
    }
    REQUIRE(sent.last().message.command() == 0);
    REQUIRE(sent.last().message.parameterAsInt32(2) == static_cast<int>(kMidnight + timeOfDay));
    return 0;
}
