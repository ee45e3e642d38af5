#include "tests/fuzz/FuzzHistory.h"
#include "tests/fuzz/FuzzRecording.h"
#include "tests/fuzz/Require.h"
#include "tests/history/ReplayModel.h"

#include <QByteArray>

#include <cstdint>
#include <cstring>

/// Any bytes as options and as the recordings of a day's sources on both storages: the blocks are
/// those of a plain model, each is sent when the one before it is acknowledged, and the worker ends
/// behind the last.

namespace {

constexpr const char* kPlaces[] = {
    "/mmc//system/2024-05-01/systemData.gdf",
    "/mmc//gauges/2024-05-01/A/calcData.gdf",
    "/mmc//gaugecards/2024-05-02/A/rawData.gdf",
    "/root/data//system/2024-05-02/systemData.gdf",
    "/root/data//gauges/2024-05-01/A/calcData.gdf",
    "/root/data//gauges/2024-05-01/B/calcData.gdf",
    "/root/data//gauges/2024-04-30/B/calcData.gdf",
    "/root/data//gaugecards/2024-05-01/B/rawData.gdf",
};

QMap<QString, int> channelsOf(const QString& options) {
    QMap<QString, int> channels;
    for (const QString& part : options.split('|')) {
        if (part.contains('=')) {
            channels[part.section('=', 0, 0)] = part.section('=', 1).trimmed().toInt();
        }
    }
    return channels;
}

/// The client of the one replay there is: acknowledges each block as soon as it is sent.
class Client {
public:
    Client(FuzzHistory& history, const QList<QByteArray>& expected)
        : _history(history), _expected(expected) {}

    void acknowledge() {
        const QList<FakeBus::Sent> sent = _history.bus().takeSent();
        REQUIRE(sent.size() == 1);
        const Message& block = sent[0].message;
        REQUIRE(block.command() == 233);
        REQUIRE(std::strcmp(block.formatString(), "iiiB") == 0);
        REQUIRE(block.parameterAsInt32(0) == 1);
        REQUIRE(block.parameterAsInt32(1) == _count + 1);
        REQUIRE(_count < _expected.size());
        int length = 0;
        const char* const bytes = block.parameterAsBLOB(3, length);
        REQUIRE(QByteArray(bytes, length) == _expected[_count]);
        ++_count;
        _history.manager().ackReplayData(1, _count);
    }

    int count() const { return _count; }

private:
    FuzzHistory& _history;
    const QList<QByteArray>& _expected;
    int _count = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    const QString options = QString::fromUtf8(input.takeBlock().c_str());
    ReplayModel model{{}, "2024-05-01", channelsOf(options)};
    for (const char* place : kPlaces) {
        if (input.takeByte() % 4 != 0) {
            model.tree[place] = takeRecording(input);
        }
    }
    const QList<QByteArray> expected = model.blocks();
    FuzzHistory history(model.tree);
    Client client(history, expected);
    history.manager().beginHistoricalReplay("client", "20240501000000");
    REQUIRE(history.bus().takeSent().size() == 1);
    history.bus().transport().onWait = [&](int) { client.acknowledge(); };
    FuzzHistory::playToItsEnd([&] { history.manager().continueHistoricalReplay(1, options); });
    REQUIRE(client.count() == expected.size());
    REQUIRE(history.bus().takeSent().isEmpty());
    return 0;
}
