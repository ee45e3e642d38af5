#include "tools/sample/SampleUnit.h"

#include "tools/sample/Timeline.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimeZone>
#include <QtEndian>

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

namespace sample {

namespace {

/// What random numbers are for, where the seed alone does not tell. Beyond any record type, by
/// which the recordings' own numbers are told apart.
enum Stream : quint64 { PumpStream = 1000, ClockStream, FaultStream };

constexpr qint64 kDaySeconds = 86'400;
/// One source in so many is a device too old to describe its records.
constexpr int kOldOneIn = 3;
/// Every header begins with as much.
constexpr int kFixedHeaderBytes = 80;
constexpr int kHeaderSizeOffset = 8;
constexpr int kRegistersBegin = 40'001;

bool isOldDevice(int source) {
    return source % kOldOneIn == kOldOneIn - 1;
}

QByteArray withRandomBytes(QByteArray bytes, int from, Random& random) {
    const qint64 begin = from + random.below(bytes.size() - from);
    const qint64 end = std::min<qint64>(bytes.size(), begin + 64 + random.below(448));
    for (qint64 i = begin; i < end; ++i) {
        bytes[i] = static_cast<char>(random.below(256));
    }
    return bytes;
}

}  // namespace

SampleUnit::SampleUnit(const Options& options)
    : _options(options), _pump(Random::seedOf({options.seed, PumpStream})) {}

QString SampleUnit::write() {
    bool isWritten = chooseFaults() && makeRoots() && writeConfig();
    for (int day = 0; isWritten && day < _options.days; ++day) {
        isWritten = writeDay(day);
    }
    if (isWritten) {
        linkReplayFolders();
    }
    return _problem;
}

void SampleUnit::linkReplayFolders() {
    for (const char* root : {"mmc", "data"}) {
        for (const char* name : {"system", "gauges", "gaugecards"}) {
            const QString folder = _options.folder + '/' + root + '/';
            const QString target = QString::fromUtf8(_options.job) + '/' + name;
            // A job may have such a name itself.
            const bool isWanted = QFile::exists(folder + target) && !QFile::exists(folder + name);
            if (isWanted && !QFile::link(target, folder + name)) {
                _problem = QStringLiteral("cannot link %1%2").arg(folder, name);
            }
        }
    }
}

bool SampleUnit::makeRoots() {
    for (const char* root : {"mmc", "data", "config"}) {
        QDir folder(_options.folder + '/' + root);
        if (!folder.isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden)) {
            _problem = folder.path() + QStringLiteral(" holds something already");
            return false;
        }
        if (!folder.mkpath(QStringLiteral("."))) {
            _problem = QStringLiteral("cannot make the folder ") + folder.path();
            return false;
        }
    }
    return true;
}

bool SampleUnit::chooseFaults() {
    std::vector<int> numbers(static_cast<std::size_t>(recordingsADay() * _options.days));
    const auto spoiledCount = static_cast<std::size_t>(_options.damaged + _options.empty);
    if (spoiledCount > numbers.size()) {
        _problem = QStringLiteral("only %1 recordings to damage or empty").arg(numbers.size());
        return false;
    }
    std::iota(numbers.begin(), numbers.end(), 0);
    Random random(Random::seedOf({_options.seed, FaultStream}));
    for (std::size_t i = 0; i < spoiledCount; ++i) {
        const auto left = static_cast<qint64>(numbers.size() - i);
        std::swap(numbers[i], numbers[i + static_cast<std::size_t>(random.below(left))]);
        constexpr Fault kDamages[] = {Fault::CutInside, Fault::CutInHeader, Fault::HeaderSizeLies,
                                      Fault::RandomBytes};
        constexpr Fault kEmpties[] = {Fault::NoBytes, Fault::NoRecords};
        const auto damaged = static_cast<std::size_t>(_options.damaged);
        _faults[numbers[i]] = i < damaged ? kDamages[i % std::size(kDamages)]
                                          : kEmpties[(i - damaged) % std::size(kEmpties)];
    }
    return true;
}

int SampleUnit::recordingsADay() const {
    int count = 0;
    for (const Category& category : categories()) {
        count += category.sourceCount(_options);
    }
    return count;
}

bool SampleUnit::writeDay(int day) {
    int number = day * recordingsADay();
    for (const Category& category : categories()) {
        for (int source = 0; source < category.sourceCount(_options); ++source) {
            if (!writeRecording({category, source, day, number++})) {
                return false;
            }
        }
    }
    return true;
}

bool SampleUnit::writeRecording(const Recording& recording) {
    const Category& category = recording.category;
    const QByteArray bytes = spoiled(record(recording), recording.number);
    QByteArray path =
        '/' + _options.job + '/' + category.folder + '/' + dateOf(recording.day) + '/';
    if (category.sources) {
        path += category.nameOf(recording.source) + '/';
    }
    path += category.fileName;
    // A unit moves its days to the card as they grow old; the newest has not got there yet.
    const int daysAfter = _options.days - 1 - recording.day;
    const bool isOnCard = daysAfter > 0 || _options.days == 1;
    const bool isInternal = daysAfter < 2;
    const QString name = QString::fromUtf8(path);
    return (!isOnCard || writeFile(QStringLiteral("mmc") + name, bytes, recording.day + 1)) &&
           (!isInternal || writeFile(QStringLiteral("data") + name, bytes, recording.day + 1));
}

RecordingWriter SampleUnit::record(const Recording& recording) const {
    const Category& category = recording.category;
    const qint64 begin = dayStart(recording.day);
    const auto day = static_cast<quint64>(begin);
    const quint64 sourceSeed = Random::seedOf(
        {_options.seed, category.kinds[0].type, static_cast<quint64>(recording.source)});
    Random random(Random::seedOf({sourceSeed, day}));
    Random clock(Random::seedOf({_options.seed, ClockStream, day}));

    QList<Signal> values;
    quint64 seed = sourceSeed;
    for (const Shape& shape : category.shapesOf(recording.source)) {
        values.append(Signal(shape, ++seed, begin));
    }
    const qint64 interval = qint64{_options.rateSeconds} * category.slowness;
    const QList<Spell> gaps = gapsOf(begin, _options.gaps, random);
    const QList<Spell> clockSpells = clockSpellsOf(begin, _options.clockJumps, clock);
    const qint64 start = begin + recording.source % interval;
    RecordingWriter writer(category.nameOf(recording.source), static_cast<quint32>(start),
                           isOldDevice(recording.source) ? QList<RecordKind>() : category.kinds);
    qint64 number = 0;
    for (const Moment& moment :
         momentsOf(start, begin + kDaySeconds, interval, gaps, clockSpells, random)) {
        writer.setTime(moment.recorded);
        category.record(category, {values, moment.time, number++, _pump.isOn(moment.time), random},
                        writer);
    }
    return writer;
}

QByteArray SampleUnit::spoiled(const RecordingWriter& writer, int number) const {
    const QByteArray& bytes = writer.bytes();
    const auto fault = _faults.find(number);
    if (fault == _faults.end()) {
        return bytes;
    }
    Random random(Random::seedOf({_options.seed, FaultStream, static_cast<quint64>(number)}));
    const int headerSize = writer.headerSize();
    switch (fault->second) {
        case Fault::CutInside:
            return bytes.first(headerSize + random.below(bytes.size() - headerSize));
        case Fault::CutInHeader:
            return bytes.first(1 + random.below(kFixedHeaderBytes - 1));
        case Fault::HeaderSizeLies: {
            QByteArray lying = bytes;
            qToLittleEndian(static_cast<quint32>(bytes.size() + 1 + random.below(1'000'000)),
                            lying.data() + kHeaderSizeOffset);
            return lying;
        }
        case Fault::RandomBytes:
            return withRandomBytes(bytes, headerSize, random);
        case Fault::NoBytes:
            return {};
        case Fault::NoRecords:
            return bytes.first(headerSize);
    }
    return bytes;
}

bool SampleUnit::writeConfig() {
    return writeFile(QStringLiteral("config/job.xml"), jobXml(), 0) &&
           writeFile(QStringLiteral("config/modbus-main.xml"), modbusXml(), 0) &&
           writeFile(QStringLiteral("config/panel/screens.cfg"), screens(), 0) &&
           writeFile(QStringLiteral("data/") + QString::fromUtf8(_options.job) +
                         QStringLiteral("/notes.txt"),
                     notes(), _options.days);
}

QByteArray SampleUnit::jobXml() const {
    QByteArray xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<job name=\"" + _options.job + "\">\n";
    for (const Category& category : categories()) {
        for (int source = 0; category.sources && source < category.sourceCount(_options);
             ++source) {
            xml += "  <" + category.element + " name=\"" + category.nameOf(source) + '"';
            if (category.sources == &Options::gauges) {
                xml += " unit=\"" + gaugeUnit(source) + '"';
            }
            xml += "/>\n";
        }
    }
    return xml + "</job>\n";
}

QByteArray SampleUnit::modbusXml() const {
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<modbus port=\"502\">\n";
    const Category& gauges = categories().first();
    for (int source = 0; source < gauges.sourceCount(_options); ++source) {
        xml += "  <register address=\"" + QByteArray::number(kRegistersBegin + 2 * source) +
               "\" gauge=\"" + gauges.nameOf(source) + "\"/>\n";
    }
    return xml + "</modbus>\n";
}

QByteArray SampleUnit::screens() const {
    QByteArray lines;
    const Category& gauges = categories().first();
    for (int source = 0; source < gauges.sourceCount(_options); ++source) {
        lines += "screen " + QByteArray::number(source + 1) + ": " + gauges.nameOf(source) + '\n';
    }
    return lines;
}

QByteArray SampleUnit::notes() const {
    return dateOf(0) + " recording begins\n" + dateOf(_options.days - 1) + " pump serviced\n";
}

bool SampleUnit::writeFile(const QString& path, const QByteArray& bytes, int day) {
    const QString whole = _options.folder + '/' + path;
    QDir().mkpath(QFileInfo(whole).path());
    QFile file(whole);
    const QDateTime time = QDateTime::fromSecsSinceEpoch(dayStart(day), QTimeZone::utc());
    if (!file.open(QFile::WriteOnly | QFile::Unbuffered) || file.write(bytes) != bytes.size() ||
        !file.setFileTime(time, QFile::FileModificationTime)) {
        _problem = QStringLiteral("cannot write %1: %2").arg(whole, file.errorString());
        return false;
    }
    return true;
}

qint64 SampleUnit::dayStart(int day) const {
    return _options.from.addDays(day).startOfDay(QTimeZone::utc()).toSecsSinceEpoch();
}

QByteArray SampleUnit::dateOf(int day) const {
    return _options.from.addDays(day).toString(Qt::ISODate).toLatin1();
}

}  // namespace sample
