#pragma once

#include "tools/sample/Categories.h"
#include "tools/sample/Options.h"

#include <QByteArray>
#include <QString>

#include <map>

/// Writes the tree of one unit. Each recording is made in memory, spoiled where the options ask
/// for that, and then written to the storages that hold its day.
namespace sample {

class SampleUnit {
public:
    explicit SampleUnit(const Options& options);

    /// An empty text, or what went wrong. What is already written then stays.
    QString write();

private:
    enum class Fault { CutInside, CutInHeader, HeaderSizeLies, RandomBytes, NoBytes, NoRecords };

    struct Recording {
        const Category& category;
        int source;
        int day;     ///< from 0
        int number;  ///< from 0, among all of the unit
    };

    bool makeRoots();
    bool chooseFaults();
    int recordingsADay() const;

    /// A replay reads its days from the roots themselves.
    void linkReplayFolders();

    bool writeDay(int day);
    bool writeRecording(const Recording& recording);
    RecordingWriter record(const Recording& recording) const;
    QByteArray spoiled(const RecordingWriter& writer, int number) const;

    bool writeConfig();
    QByteArray jobXml() const;
    QByteArray modbusXml() const;
    QByteArray screens() const;
    QByteArray notes() const;

    /// `path` is below the unit's folder. The file's modification time is the beginning of `day`.
    bool writeFile(const QString& path, const QByteArray& bytes, int day);
    qint64 dayStart(int day) const;
    QByteArray dateOf(int day) const;

    Options _options;
    Pump _pump;
    std::map<int, Fault> _faults;  ///< by the recording's number
    QString _problem;
};

}  // namespace sample
