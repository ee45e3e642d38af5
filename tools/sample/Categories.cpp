#include "tools/sample/Categories.h"

#include <iterator>

namespace sample {

namespace {

constexpr ValueKind kInteger = ValueKind::Integer;
constexpr ValueKind kReal = ValueKind::Real;

/// The system tells of its storage with every tenth sample only.
constexpr qint64 kStorageOneIn = 10;

struct GaugeKind {
    const char* name;
    const char* unit;
    Shape shape;
};

const GaugeKind kGaugeKinds[] = {
    {"flow", "m3/h", {14.0, 6.0, 1.0, 1.0, 30.0, 0.4}},
    {"pressure", "kPa", {310.0, 15.0, 5.0, 8.0, 80.0, 1.5}},
    {"level", "m", {4.2, 0.8, 0.5, 0.2, -0.6, 0.02}},
    {"turbidity", "NTU", {1.6, 0.3, 0.4, 0.2, 0.5, 0.05}},
};

const Shape kAirTemperature = {14.0, 6.0, 3.0, 1.0, 0.0, 0.1};
const Shape kSupplyVoltage = {12.6, 0.6, 0.1, 0.1, -0.3, 0.02};
const Shape kSupplyCurrent = {0.4, 0.05, 0.02, 0.02, 1.8, 0.03};

const GaugeKind& gaugeKind(int source) {
    return kGaugeKinds[source % std::ssize(kGaugeKinds)];
}

QByteArray numbered(const QByteArray& name, int source) {
    return name + '-' + QByteArray::number(source + 1);
}

QByteArray gaugeName(int source) {
    return numbered(gaugeKind(source).name, source / static_cast<int>(std::ssize(kGaugeKinds)));
}

void recordGauge(const Category& category, const Sample& sample, RecordingWriter& writer) {
    writer.addRecord(category.kinds[0],
                     {sample.value(0), sample.value(1), sample.pumpIsOn ? 1.0 : 0.0});
}

void recordGaugeCard(const Category& category, const Sample& sample, RecordingWriter& writer) {
    writer.addRecord(category.kinds[0],
                     {static_cast<double>(sample.number), sample.value(0), sample.value(1)});
}

/// Input 0 is the pump's contact, input 1 a door, opened now and then.
void recordInputs(const Category& category, const Sample& sample, RecordingWriter& writer) {
    const bool doorIsOpen = sample.noise.below(500) == 0;
    const double inputs = (sample.pumpIsOn ? 1 : 0) + (doorIsOpen ? 2 : 0);
    writer.addRecord(category.kinds[0], {inputs, static_cast<double>(sample.number),
                                         sample.value(0) * 1000.0, doorIsOpen ? 1.0 : 0.0});
}

void recordWireless(const Category& category, const Sample& sample, RecordingWriter& writer) {
    const double signalStrength = -75.0 + static_cast<double>(sample.noise.below(12));
    writer.addRecord(category.kinds[0],
                     {sample.value(0), signalStrength, sample.value(1) * 1000.0});
}

void recordOstrevin(const Category& category, const Sample& sample, RecordingWriter& writer) {
    writer.addRecord(category.kinds[0], {sample.value(0)});
}

void recordSystem(const Category& category, const Sample& sample, RecordingWriter& writer) {
    Random& noise = sample.noise;
    const double ambient = sample.value(2);
    const auto connections = static_cast<double>(noise.below(4));
    writer.addRecord(category.kinds[0],
                     {sample.value(0), sample.value(1), ambient + 6.0,
                      3300.0 + static_cast<double>(noise.below(8)), sample.pumpIsOn ? 1.0 : 0.0});
    if (sample.number % kStorageOneIn == 0) {
        const auto written = static_cast<double>(sample.number);
        writer.addRecord(category.kinds[1],
                         {812'000.0 - written, 7'340'000.0 - written, 7'761'920.0});
    }
    writer.addRecord(category.kinds[2],
                     {ambient, ambient + 17.5, 92'000.0 - static_cast<double>(noise.below(4'000)),
                      static_cast<double>(5 + noise.below(40)), connections});
}

const QList<RecordKind> kSystemKinds = {
    {252,
     "power",
     {{"sysVoltage", kReal, 4},
      {"sysCurrent", kReal, 4},
      {"temp", kReal, 4},
      {"apvcc", kInteger, 2},
      {"sysFlags", kInteger, 1}}},
    {254,
     "storage",
     {{"diskFree", kInteger, 4}, {"cardFree", kInteger, 4}, {"cardSize", kInteger, 4}}},
    {255,
     "status",
     {{"ambient", kReal, 4},
      {"die", kReal, 4},
      {"freeMemory", kInteger, 4},
      {"load", kInteger, 4},
      {"connections", kInteger, 1}}},
};

}  // namespace

QByteArray gaugeUnit(int source) {
    return gaugeKind(source).unit;
}

const QList<Category>& categories() {
    static const QList<Category> all = {
        {"gauges",
         "gauge",
         "calcData.gdf",
         &Options::gauges,
         gaugeName,
         1,
         {{5, "gauge", {{"value", kReal, 4}, {"temperature", kReal, 4}, {"status", kInteger, 1}}}},
         [](int source) {
             return QList<Shape>{gaugeKind(source).shape, kAirTemperature};
         },
         recordGauge},
        {"gaugecards",
         "gaugecard",
         "rawData.gdf",
         &Options::gaugeCards,
         [](int source) { return numbered("card", source); },
         1,
         {{90, "gauge card", {{"count", kInteger, 4}, {"LV", kReal, 4}, {"LC", kReal, 4}}}},
         [](int) {
             return QList<Shape>{kSupplyVoltage, kSupplyCurrent};
         },
         recordGaugeCard},
        {"inputs",
         "inputs",
         "rawData.gdf",
         &Options::inputs,
         [](int source) { return numbered("inputs", source); },
         6,
         {{100,
           "inputs",
           {{"states", kInteger, 4},
            {"scans", kInteger, 4},
            {"supply", kInteger, 2},
            {"flags", kInteger, 1}}}},
         [](int) { return QList<Shape>{kSupplyVoltage}; },
         recordInputs},
        {"wireless",
         "wireless",
         "rawData.gdf",
         &Options::wireless,
         [](int source) { return numbered("well", source); },
         30,
         {{20,
           "wireless",
           {{"level", kReal, 4}, {"signal", kInteger, 2}, {"battery", kInteger, 2}}}},
         [](int) {
             return QList<Shape>{{-11.0, 0.4, 0.6, 0.2, -0.9, 0.02},
                                 {3.61, 0.02, 0.03, 0.01, 0.0, 0.01}};
         },
         recordWireless},
        {"ostrevin",
         "ostrevin",
         "rawData.gdf",
         &Options::ostrevin,
         [](int source) { return numbered("ostrevin", source); },
         6,
         {{103, "ostrevin", {{"value", kReal, 4}}}},
         [](int) {
             return QList<Shape>{{0.8, 0.1, 0.1, 0.05, 0.2, 0.02}};
         },
         recordOstrevin},
        {"system",
         {},
         "systemData.gdf",
         nullptr,
         [](int) { return QByteArray("system"); },
         6,
         kSystemKinds,
         [](int) {
             return QList<Shape>{kSupplyVoltage, kSupplyCurrent, kAirTemperature};
         },
         recordSystem},
    };
    return all;
}

}  // namespace sample
