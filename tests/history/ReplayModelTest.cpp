#include "tests/history/ReplayModel.h"

#include "tests/history/RandomHistory.h"
#include "tests/history/ReplayFixture.h"

namespace {

constexpr int kTrees = 320;
constexpr quint32 kMidnight = 1'714'521'600;  // of 2024-05-01

const QList<int> kTypes = {5, 5, 5, 90, 252, 254, 255, 100};
const QStringList kNames = {"A", "b", "1234", "B", ".hidden"};
const QStringList kDays = {"2024-04-30", "2024-05-01", "2024-05-02", "2024-12-31",
                           "2024-02-30", "2024-5-1",   "thumbnails"};

/// Every block as a model has it that takes each step by itself.
class ReplayModelTest : public ReplayFixture {
protected:
    static void plant(RandomHistory& random, ReplayModel& model) {
        for (const char* root : {"/mmc//", "/root/data//"}) {
            for (const QString& day : kDays) {
                const auto record = [&](const QString& rest) {
                    if (random.oneIn(6)) {
                        const QString path = root + rest;
                        model.tree[path] = random.recording(kMidnight, kTypes);
                    }
                };
                record("system/" + day + "/systemData.gdf");
                for (const QString& name : kNames) {
                    record("gauges/" + day + "/" + name + "/calcData.gdf");
                    record("gaugecards/" + day + "/" + name + "/rawData.gdf");
                }
            }
        }
    }

    static QString chooseOptions(RandomHistory& random, ReplayModel& model) {
        QStringList options;
        for (const QString& name : kNames) {
            if (!random.oneIn(3)) {
                const int channel = random.number(-1, 300);
                model.channels[name] = channel;
                options.append(name + "=" + QString::number(channel));
            }
        }
        options.append("abc");
        return options.join('|');
    }
};

TEST_F(ReplayModelTest, RandomRecordingsOnBothStorages) {
    qsizetype blocks = 0;
    for (unsigned seed = 0; seed < kTrees; ++seed) {
        SCOPED_TRACE("tree " + std::to_string(seed));
        RandomHistory random(seed);
        ReplayModel model{{}, "2024-05-01", {}};
        plant(random, model);
        const QString options = chooseOptions(random, model);
        writeTree(model.tree);
        const ChildReport report = replay(options);
        ASSERT_EQ(report.status, 0);
        const QList<QByteArray> actual = blocksOf(report);
        const QList<QByteArray> expected = model.blocks();
        ASSERT_EQ(actual.size(), expected.size());
        for (qsizetype i = 0; i < actual.size(); ++i) {
            ASSERT_EQ(actual[i].toHex(), expected[i].toHex()) << "block " << i;
            ASSERT_EQ(report.sent[i + 1].message.parameterAsInt32(1), i + 1);
        }
        blocks += actual.size();
    }
    EXPECT_GT(blocks, 5 * kTrees) << "not all of them can be too strange";
}

}  // namespace
