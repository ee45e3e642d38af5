#include "tools/storagectl/DayFiles.h"

#include <gtest/gtest.h>

namespace {

using storagectl::DayFiles;

TEST(DayFilesTest, AUnitsThumbnailsHaveTheirDaysOnTheCardOrInside) {
    const DayFiles days("/root/data/northfield/gauges/thumbnails/2024-02-flow-1.gdt");
    ASSERT_TRUE(days.isValid());
    EXPECT_EQ(days.month(), "2024-02");
    EXPECT_EQ(days.days(), 29);
    EXPECT_EQ(days.candidates(3),
              QByteArrayList({"/mmc/northfield/gauges/2024-02-03/flow-1/calcData.gdf",
                              "/root/data/northfield/gauges/2024-02-03/flow-1/calcData.gdf"}));
}

TEST(DayFilesTest, TheOtherCategoriesRecordRawData) {
    for (const QByteArray category : {"gaugecards", "inputs", "wireless", "ostrevin"}) {
        const DayFiles days("/copy/data/job/" + category + "/thumbnails/2024-05-a.gdt");
        EXPECT_EQ(days.candidates(31).first(),
                  "/copy/mmc/job/" + category + "/2024-05-31/a/rawData.gdf");
    }
}

TEST(DayFilesTest, TheSystemHasNoSource) {
    const DayFiles days("/root/data/job/system/thumbnails/2024-05.gdt");
    ASSERT_TRUE(days.isValid());
    EXPECT_EQ(days.candidates(1).first(), "/mmc/job/system/2024-05-01/systemData.gdf");
}

TEST(DayFilesTest, ARootOfAnotherNameHoldsBoth) {
    EXPECT_EQ(DayFiles("/mmc/job/gauges/thumbnails/2024-05-a.gdt").candidates(1),
              QByteArrayList({"/mmc/job/gauges/2024-05-01/a/calcData.gdf"}));
}

TEST(DayFilesTest, AnyOtherNameTellsNothing) {
    for (const QByteArray path :
         {"", "2024-05-a.gdt", "/data/job/gauges/2024-05-01/flow-1/calcData.gdf",
          "/data/job/gauges/thumbnails/2024-13-a.gdt", "/data/job/gauges/thumbnails/2024-05.gdt",
          "/data/job/gauges/thumbnails/2024-05-.gdt", "/data/job/gauges/thumbnails/2024-05_a.gdt",
          "/data/job/system/thumbnails/2024-05-a.gdt", "/data/job/gauges/thumbnails/x.gdt",
          "/data/job/gauges/thumbnails/.gdt"}) {
        EXPECT_FALSE(DayFiles(path).isValid()) << path.toStdString();
    }
}

}  // namespace
