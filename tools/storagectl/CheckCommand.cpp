#include "tools/storagectl/Commands.h"

#include "tools/storagectl/Interrupt.h"
#include "tools/storagectl/LocalSource.h"
#include "tools/storagectl/Progress.h"
#include "tools/storagectl/TreeComparison.h"

namespace storagectl {

namespace {

using Relation = TreeComparison::Relation;

/// One run of check.
class Check {
public:
    explicit Check(Context& context) : _context(context), _options(context.options.mirror) {}

    ExitCode run() {
        LocalTree local;
        UnitTree unit(_context);
        Outcome outcome = local.read(_options.local);
        if (outcome.isDone()) {
            outcome = unit.read();
        }
        if (outcome.isDone()) {
            const TreeComparison comparison(unit.files(), local);
            outcome = showRows(comparison);
            for (const QByteArray& name : comparison.onlyHere()) {
                tell('-', name);
            }
            summarize();
        }
        if (!outcome.isDone()) {
            _context.output.error(outcome);
            return outcome.code;
        }
        if (_incomparable > 0 || !unit.isComplete()) {
            return ExitCode::Partly;
        }
        return _differences > 0 ? ExitCode::Failed : ExitCode::Done;
    }

private:
    /// Anything but Done ends the comparison.
    Outcome showRows(const TreeComparison& comparison) {
        for (const TreeComparison::Row& row : comparison.rows()) {
            if (Interrupt::requested() || _context.output.isClosed()) {
                return Outcome::failure(ExitCode::Interrupted, "check: interrupted");
            }
            const bool sameSize =
                row.relation == Relation::Same || row.relation == Relation::OtherTime;
            if (!_options.comparesContents || !sameSize) {
                showRow(row);
                continue;
            }
            const Outcome outcome = compareContents(row);
            if (!outcome.isDone()) {
                return outcome;
            }
        }
        return Outcome::done();
    }

    void showRow(const TreeComparison::Row& row) {
        const QByteArray& name = row.file.name;
        switch (row.relation) {
            case Relation::Missing:
                return tell('+', name);
            case Relation::Shorter:
            case Relation::Longer:
                return tell(
                    '*', name,
                    QString("size: %1 there, %2 here").arg(row.file.size).arg(row.here.size));
            case Relation::OtherTime:
                return row.file.modified < 0
                           ? tell('!', name, "its time on the unit is not known")
                           : tell('*', name,
                                  QString("time: %1 there, %2 here")
                                      .arg(isoTime(row.file.modified), isoTime(row.here.modified)));
            case Relation::Same:
                return tell('=', name);
            case Relation::Barred:
                return tell('!', name, "here " + text(row.barrier) + " is something else");
        }
    }

    Outcome compareContents(const TreeComparison::Row& row) {
        const QByteArray& root = _options.root;
        const QByteArray remote = (root.endsWith('/') ? root : root + '/') + row.file.name;
        LocalSource source;
        PieceDigests digests;
        Outcome local = source.open(_options.local + '/' + row.file.name);
        if (local.isDone()) {
            local = source.digest(source.size(), digests);
        }
        if (!local.isDone()) {
            tell('!', row.file.name, local.message);
            return Outcome::done();
        }
        bool isSame = false;
        const Answer answer = prove(remote, digests, isSame);
        if (answer == Answer::Success) {
            isSame ? tell('=', row.file.name) : tell('*', row.file.name, "contents");
        } else if (answer == Answer::Refused || answer == Answer::Unfit) {
            tell('!', row.file.name, _context.files.explain(remote, "hash").message);
        } else {
            return outcomeOf(answer, text(remote));
        }
        return Outcome::done();
    }

    Answer prove(const QByteArray& remote, const PieceDigests& digests, bool& isSame) {
        FileService& files = _context.files;
        FileService::OpenFile file;
        Answer answer = files.open(remote, FileService::ReadOnly, file);
        if (answer != Answer::Success) {
            return answer;
        }
        if (file.tooLarge || file.size != digests.length()) {
            isSame = false;
        } else {
            Progress progress(_context.output, text(remote));
            progress.begin("compared", 0, digests.length());
            answer = files.prove(file, digests.pieces(), isSame,
                                 [&progress](qint64 done) { progress.update(done); });
        }
        if (answer == Answer::Success) {
            files.close(file);
        }
        return answer;
    }

    void tell(char sign, const QByteArray& name, const QString& why = {}) {
        count(sign);
        const Output::Style& style = _context.output.style();
        if (sign == '=' && !_options.showsSame && !style.verbose) {
            return;
        }
        QJsonObject object{{"command", "check"}, {"file", text(name)}, {"result", QString(sign)}};
        if (!why.isEmpty()) {
            object.insert("why", why);
        }
        _context.output.object(object);
        _context.output.line(QString(sign) + ' ' + text(name) +
                             (why.isEmpty() ? QString() : " (" + why + ')'));
    }

    void count(char sign) {
        int& counter = sign == '=' ? _same : sign == '!' ? _incomparable : _differences;
        ++counter;
    }

    void summarize() {
        _context.output.object({{"command", "check"},
                                {"same", _same},
                                {"differences", _differences},
                                {"incomparable", _incomparable}});
        _context.output.talk(QString("%1 the same, %2 differ, %3 not comparable")
                                 .arg(_same)
                                 .arg(_differences)
                                 .arg(_incomparable));
    }

    Context& _context;
    const MirrorOptions& _options;
    int _same = 0;
    int _differences = 0;
    int _incomparable = 0;
};

}  // namespace

ExitCode check(Context& context) {
    return Check(context).run();
}

}  // namespace storagectl
