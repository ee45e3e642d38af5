#include "tests/history/ReplayModel.h"

#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <cstring>

using namespace PlainRecording;

namespace {

struct Folder {
    QString path;
    QString file;
};

const QList<Folder>& folders() {
    static const QList<Folder> all = {
        {"/mmc//system", "systemData.gdf"},     {"/mmc//gauges", "calcData.gdf"},
        {"/mmc//gaugecards", "rawData.gdf"},    {"/root/data//system", "systemData.gdf"},
        {"/root/data//gauges", "calcData.gdf"}, {"/root/data//gaugecards", "rawData.gdf"},
    };
    return all;
}

bool isDate(const QString& name) {
    static const QRegularExpression shape("\\A[0-9]{4}-[0-9]{2}-[0-9]{2}\\z");
    if (!shape.match(name).hasMatch()) {
        return false;
    }
    const int year = name.left(4).toInt();
    const int month = name.mid(5, 2).toInt();
    const int day = name.mid(8, 2).toInt();
    const bool isLeap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    const int days[] = {31, isLeap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return year > 0 && month >= 1 && month <= 12 && day >= 1 && day <= days[month - 1];
}

QByteArray numberItem(char kind, const QByteArray& name, quint32 bits) {
    QByteArray item = kind + name + '\0';
    for (int shift = 0; shift < 32; shift += 8) {
        item += static_cast<char>(bits >> shift & 0xff);
    }
    return item;
}

QList<QByteArray> itemsOf(const QByteArray& record, int channel) {
    const auto real = [&](const QByteArray& name, int offset) {
        return numberItem(1, name, fieldAt(record, offset));
    };
    const auto whole = [](const QByteArray& name, quint32 value) {
        return numberItem(0, name, value);
    };
    const auto byte = [&](int offset) { return static_cast<quint32>(byteAt(record, offset)); };
    const QByteArray gauge = "G" + QByteArray::number(channel);
    switch (byteAt(record, 0)) {
        case 5:
            return {real(gauge + "P", 1), real(gauge + "T", 5), whole(gauge + "status", byte(9))};
        case 90:
            return {real("LV", 5), real("LC", 9)};
        case 252:
            return {real("SsysVoltage", 1), real("SsysCurrent", 5), real("Stemp", 9),
                    whole("Sapvcc", byte(13) + 256 * byte(14)), whole("SsysFlags", byte(15))};
        case 254:
            return {whole("SdiskFree", fieldAt(record, 1)), whole("ScardFree", fieldAt(record, 5)),
                    whole("ScardSize", fieldAt(record, 9))};
        case 255: {
            const auto load = static_cast<float>(static_cast<qint32>(fieldAt(record, 13)));
            quint32 loadBits = 0;
            std::memcpy(&loadBits, &load, sizeof load);
            return {real("Sambient", 1), real("Sdie", 5), whole("SfreeMemory", fieldAt(record, 9)),
                    numberItem(1, "Sload", loadBits), whole("Sconnections", byte(17))};
        }
        default:
            return {};
    }
}

}  // namespace

QStringList ReplayModel::namesIn(const QString& folder) const {
    QSet<QString> names;
    for (auto file = tree.begin(); file != tree.end(); ++file) {
        if (file.key().startsWith(folder + '/')) {
            names.insert(file.key().mid(folder.size() + 1).section('/', 0, 0));
        }
    }
    QStringList sorted(names.begin(), names.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

void ReplayModel::prepare(const QString& path, int channel, QList<Source>& sources) const {
    const auto file = tree.find(path);
    if (file == tree.end() || !isReadable(*file)) {
        return;
    }
    const Source source{channel, records(*file, 0)};
    if (!source.records.isEmpty()) {
        sources.append(source);
    }
}

QList<ReplayModel::Source> ReplayModel::sourcesOf(const QString& day) const {
    QList<Source> sources;
    for (const Folder& folder : folders()) {
        const QString ofDay = folder.path + '/' + day;
        if (folder.path.endsWith("system")) {
            prepare(ofDay + '/' + folder.file, 0, sources);
            continue;
        }
        for (const QString& name : namesIn(ofDay)) {
            if (channels.contains(name)) {
                prepare(ofDay + '/' + name + '/' + folder.file, channels[name], sources);
            }
        }
    }
    return sources;
}

QList<QByteArray> ReplayModel::blocks() const {
    QMap<QString, bool> days;
    for (const Folder& folder : folders()) {
        for (const QString& name : namesIn(folder.path)) {
            if (isDate(name) && name >= firstDay) {
                days[name] = true;
            }
        }
    }
    QList<QByteArray> result;
    for (const QString& day : days.keys()) {
        QList<Source> sources = sourcesOf(day);
        while (!sources.isEmpty()) {
            QByteArray area(8192, '\0');
            int used = 0;
            bool isFull = false;
            while (!sources.isEmpty() && !isFull) {
                int next = 0;
                for (int i = 1; i < sources.size(); ++i) {
                    if (sources[i].records.first().time < sources[next].records.first().time) {
                        next = i;
                    }
                }
                const Record record = sources[next].records.takeFirst();
                for (const QByteArray& item : itemsOf(record.bytes, sources[next].channel)) {
                    isFull = isFull || item.size() > 4096 - used;
                    used += static_cast<int>(item.size());
                    area.replace(0, item.size(), item);
                }
                if (sources[next].records.isEmpty()) {
                    sources.removeAt(next);
                }
            }
            result.append(area.left(used));
        }
    }
    return result;
}
