#include "tests/history/LookupModel.h"

#include "tests/history/PlainRecording.h"

#include <cstdio>
#include <ctime>

QString dateOf(quint32 time) {
    const std::time_t seconds = time;
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d", std::gmtime(&seconds));
    return QString::fromLatin1(text);
}

void LookupModel::Row::add(quint64 time, float value) {
    while (time >= current + 60) {
        current += 60;
        minutes.append(0.0F);
        if (isFull()) {
            break;
        }
    }
    if (time <= current + 60) {
        minutes.last() = value;
    }
}

const QByteArray* LookupModel::fileOf(quint32 day, const QString& gauge) const {
    for (const char* root : {"/root/data/", "/mmc/"}) {
        const QString path =
            root + archiveFolder + "/gauges/" + dateOf(day) + "/" + gauge + "/calcData.gdf";
        const auto file = tree.constFind(path);
        if (file != tree.constEnd()) {
            return &*file;
        }
    }
    return nullptr;
}

QByteArray LookupModel::answer(int gaugeIndex, const QString& gauge) {
    Row row{quint64{midnight} + timeOfDay - 60, {}};
    for (const quint32 day : {midnight, midnight + 86400}) {
        const QByteArray* const file = fileOf(day, gauge);
        if (!file || row.isFull()) {
            break;
        }
        if (file->size() < 80) {
            log.append("Data file is smaller than a valid header size!");
        }
        if (!PlainRecording::isReadable(*file)) {
            break;
        }
        read(*file, gaugeIndex, row);
    }
    return {reinterpret_cast<const char*>(row.minutes.constData()), row.minutes.size() * 4};
}

void LookupModel::read(const QByteArray& file, int gaugeIndex, Row& row) {
    for (const PlainRecording::Record& record :
         PlainRecording::records(file, PlainRecording::fieldAt(file, 4))) {
        if (record.type() != 5 || record.time < midnight + timeOfDay || !row.isDue(record.time)) {
            continue;
        }
        const float value = PlainRecording::floatAt(record.bytes, valueSelector == 0 ? 1 : 5);
        char line[128];
        std::snprintf(line, sizeof line, "MODBUSManager: G%d TS %u value %f", gaugeIndex + 1,
                      record.time, static_cast<double>(value));
        log.append(line);
        row.add(record.time, value);
        if (row.isFull()) {
            return;
        }
    }
}
