#include "tests/history/LookupModel.h"

#include "tests/history/HistoryFixture.h"
#include "tests/history/RandomHistory.h"

namespace {

constexpr int kTrees = 400;

const QList<int> kTypes = {5, 5, 5, 5, 5, 4, 90, 100, 255};
const QStringList kGauges = {"A", "B", "", "missing"};

/// Every answer, and every value that is logged, as a model has them that takes each step by
/// itself.
class LookupModelTest : public HistoryFixture {
protected:
    /// Starts at midnights, around them, and at the ends of the times.
    static void chooseStart(RandomHistory& random, LookupModel& model) {
        model.midnight = 86400 * static_cast<quint32>(random.number(19'000, 21'000));
        if (random.oneIn(20)) {
            model.midnight = random.oneIn(2) ? 0 : 86400U * 49'708;
        }
        model.timeOfDay = static_cast<quint32>(random.oneIn(2) ? random.number(84'000, 86'399)
                                                               : random.number(0, 86'399));
        if (random.oneIn(5)) {
            model.timeOfDay = 0;
        }
    }

    static void plant(RandomHistory& random, LookupModel& model) {
        const quint32 start = model.midnight + model.timeOfDay;
        for (const char* root : {"/root/data", "/mmc"}) {
            for (const QString& gauge : {kGauges[0], kGauges[1]}) {
                for (quint32 day = model.midnight; day <= model.midnight + 86400; day += 86400) {
                    if (random.oneIn(3)) {
                        continue;
                    }
                    const QString path = QStringLiteral("%1/well/gauges/%2/%3/calcData.gdf")
                                             .arg(root, dateOf(day), gauge);
                    model.tree[path] = random.recording(day > start ? day : start, kTypes);
                }
            }
        }
    }

    void compare(LookupModel& model) {
        const QString date = dateOf(model.midnight);
        const QString time = QString::asprintf("%02u:%02u:%02u", model.timeOfDay / 3600,
                                               model.timeOfDay / 60 % 60, model.timeOfDay % 60);
        const ChildReport report = children.run([&] {
            manager.lookup("well", model.valueSelector, 5, date, time, kGauges.join('\n'));
        });
        ASSERT_EQ(report.status, 0);
        ASSERT_EQ(report.sent.size(), kGauges.size() + 1);
        for (int i = 0; i < kGauges.size(); ++i) {
            int length = 0;
            const char* const block = report.sent[i].message.parameterAsBLOB(3, length);
            const QByteArray expected = model.answer(i, kGauges[i]);
            ASSERT_EQ(QByteArray(block, length).toHex(' '), expected.toHex(' ')) << "gauge " << i;
            _values += expected.size() / 4;
            _full += expected.size() == 120;
        }
        EXPECT_EQ(report.sent.last().message.parameterAsInt32(2),
                  static_cast<int>(model.midnight + model.timeOfDay));
        QList<QByteArray> lines = report.lines.mid(1);
        lines.removeIf([](const QByteArray& line) { return line.contains("UNKNOWN RECORD TYPE"); });
        ASSERT_EQ(lines, model.log);
    }

    qsizetype _values = 0;
    int _full = 0;
};

TEST_F(LookupModelTest, RandomRecordingsOnBothStoragesOverMidnight) {
    for (unsigned seed = 0; seed < kTrees; ++seed) {
        SCOPED_TRACE("tree " + std::to_string(seed));
        RandomHistory random(seed);
        LookupModel model{{}, "well", random.number(-1, 2), 0, 0, {}};
        chooseStart(random, model);
        plant(random, model);
        writeTree(model.tree);
        ASSERT_NO_FATAL_FAILURE(compare(model));
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_GT(_values, 5 * kTrees) << "not all of them can be too strange";
    EXPECT_GT(_full, kTrees / 4);
}

}  // namespace
