#include "tools/storagectl/Commands.h"
#include "tools/storagectl/ConfigBackup.h"
#include "tools/storagectl/ConfigComparison.h"
#include "tools/storagectl/ConfigNames.h"
#include "tools/storagectl/Interrupt.h"

#include <QJsonArray>

#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <utility>

namespace storagectl {

namespace {

using State = ConfigDifference::State;

constexpr qsizetype kNamedFiles = 10;
constexpr int kPollMilliseconds = 100;
constexpr qsizetype kLongestLine = 100;

/// One restore, from the look at the archive to the look at what came of it.
class ConfigRestore {
public:
    explicit ConfigRestore(Context& context)
        : _context(context),
          _options(context.options.config),
          _unit(context),
          _name(text(_options.archive)) {}

    Outcome run() {
        Outcome outcome = readArchive();
        if (outcome.isDone()) {
            outcome = sayWhatChanges();
        }
        if (outcome.isDone() && !_options.yes) {
            outcome = askUser();
        }
        if (outcome.isDone() && !_options.noSafety) {
            outcome = backUpFirst();
        }
        if (outcome.isDone()) {
            outcome = checkUnchanged();
        }
        if (outcome.isDone()) {
            outcome = restore();
        }
        return outcome;
    }

private:
    Outcome refused(const QString& why) const {
        return Outcome::failure(ExitCode::Unsafe, QString("%1: %2").arg(_name, why));
    }

    Outcome readArchive() {
        Outcome outcome = ConfigNames::checkFolder(_options.folder);
        if (outcome.isDone()) {
            outcome = ConfigNames::checkArchive(_options.archive);
        }
        if (outcome.isDone()) {
            outcome = _unit.read(_options.archive, _contents, _file);
        }
        return outcome.isDone() ? judgeArchive() : outcome;
    }

    Outcome judgeArchive() const {
        if (ConfigContents::isRestoredFile(_options.folder)) {
            return refused(QString("%1 is a setting's name; the daemon would remove a folder of "
                                   "that name")
                               .arg(text(_options.folder)));
        }
        if (!_contents.hazards().isEmpty()) {
            return refused("not what a backup makes, it is not restored: " +
                           _contents.hazards().join("; "));
        }
        if (!_contents.hasFolder(_options.folder)) {
            return refused(QString("holds no folder %1, which the restore would remove")
                               .arg(text(_options.folder)));
        }
        const QByteArrayList links = _contents.linksLeadingOut(_options.folder);
        return links.isEmpty() || _options.allowLinks
                   ? Outcome::done()
                   : refused(
                         QString("has links that lead out of the folder (%1); if they are meant "
                                 "to, give --allow-links")
                             .arg(some(links)));
    }

    Outcome sayWhatChanges() {
        ConfigComparison comparison(_context, _contents, _options.folder);
        const Outcome outcome = comparison.run();
        if (!outcome.isDone()) {
            return outcome;
        }
        _isFolderThere = comparison.isFolderThere();
        const auto names = [&](State state) { return namesOf(comparison, state); };
        _context.output.talk(QString("%1: %2 files, %3. A restore of %4")
                                 .arg(_name)
                                 .arg(_contents.fileCount())
                                 .arg(humanSize(_contents.fileBytes()), text(_options.folder)));
        say("replaces", names(State::Differs));
        say("brings back", names(State::OnlyArchive));
        say("removes, as the archive does not have them:", names(State::OnlyUnit));
        say("makes links to what cannot be compared:", names(State::Unknown));
        say("does not bring back:", notBroughtBack());
        _context.output.talk(QString("  finds %1 files the same; system.xml is in no archive")
                                 .arg(comparison.count(State::Same, true)));
        _context.output.talk("  uses the archive up, and makes the unit's application restart");
        _context.output.object({{"command", "config restore"},
                                {"step", "plan"},
                                {"folder", text(_options.folder)},
                                {"archive", _name},
                                {"replaced", arrayOf(names(State::Differs))},
                                {"broughtBack", arrayOf(names(State::OnlyArchive))},
                                {"removed", arrayOf(names(State::OnlyUnit))},
                                {"notCompared", arrayOf(names(State::Unknown))},
                                {"notBroughtBack", arrayOf(notBroughtBack())},
                                {"same", comparison.count(State::Same, true)}});
        return outcome;
    }

    static QByteArrayList namesOf(const ConfigComparison& comparison, State state) {
        QByteArrayList names;
        for (const ConfigDifference& difference : comparison.differences()) {
            if (difference.state == state && difference.isRestored) {
                names.append(difference.name);
            }
        }
        return names;
    }

    QByteArrayList notBroughtBack() const {
        QByteArrayList names;
        for (const TarMember& member : _contents.members()) {
            const bool isFolder = member.kind == TarMember::Kind::Folder;
            if (!isFolder && !ConfigContents::comesBack(member, _options.folder)) {
                names.append(member.name);
            }
        }
        return names;
    }

    void say(const QString& what, const QByteArrayList& names) {
        if (!names.isEmpty()) {
            _context.output.talk(QString("  %1 %2").arg(what, some(names)));
        }
    }

    QString some(const QByteArrayList& names) const {
        const bool isLong = names.size() > kNamedFiles && !_context.output.style().verbose;
        return text((isLong ? names.mid(0, kNamedFiles) : names).join(", ")) +
               (isLong ? QString(" and %1 more").arg(names.size() - kNamedFiles) : QString());
    }

    static QJsonArray arrayOf(const QByteArrayList& names) {
        QJsonArray array;
        for (const QByteArray& name : names) {
            array.append(text(name));
        }
        return array;
    }

    Outcome askUser() {
        const Output::Style& style = _context.output.style();
        const bool canAsk = isatty(STDIN_FILENO) == 1 && _context.output.talksToTerminal() &&
                            !style.json && !style.quiet;
        if (!canAsk) {
            return refused("without a terminal to ask on, a restore needs --yes");
        }
        _context.output.talk(
            QString("restore %1 from %2? Type yes to go on").arg(text(_options.folder), _name));
        QByteArray line;
        const Outcome outcome = readLine(line);
        if (!outcome.isDone() || line.trimmed() != "yes") {
            return outcome.isDone()
                       ? Outcome::failure(ExitCode::Failed, _name + ": nothing was restored")
                       : outcome;
        }
        return outcomeOf(_context.files.connection().startAfresh(), _name);
    }

    /// The connection is kept alive meanwhile, however long it takes.
    Outcome readLine(QByteArray& line) {
        while (!line.endsWith('\n') && line.size() < kLongestLine) {
            if (Interrupt::requested()) {
                return outcomeOf(Answer::Interrupted, _name);
            }
            pollfd input = {STDIN_FILENO, POLLIN, 0};
            if (::poll(&input, 1, 0) <= 0) {
                _context.files.connection().bus().readWaitingMessages(kPollMilliseconds);
                continue;
            }
            char letter = 0;
            if (::read(STDIN_FILENO, &letter, 1) <= 0) {
                break;
            }
            line.append(letter);
        }
        return Outcome::done();
    }

    Outcome backUpFirst() {
        const QByteArray archive = ConfigNames::safetyArchiveFor(_options.folder);
        ConfigBackup backup(_context, _options.folder, archive);
        Outcome outcome = backup.run(false);
        if (outcome.isDone()) {
            outcome = readBack(archive);
        }
        if (!outcome.isDone()) {
            outcome.message +=
                "; without this backup nothing was restored (--no-safety leaves it "
                "out)";
            return outcome;
        }
        _context.output.talk(
            QString("what is there now is in %1, %2 bytes%3")
                .arg(text(archive))
                .arg(backup.size())
                .arg(_isFolderThere
                         ? QString()
                         : QString(", without %1, which is not there").arg(text(_options.folder))));
        _context.output.object({{"command", "config restore"},
                                {"step", "safety"},
                                {"archive", text(archive)},
                                {"size", backup.size()}});
        return outcome;
    }

    Outcome readBack(const QByteArray& archive) {
        ConfigContents contents;
        ConfigUnit::File unused;
        const Outcome outcome = _unit.read(archive, contents, unused);
        return !outcome.isDone() || !_isFolderThere || contents.hasFolder(_options.folder)
                   ? outcome
                   : Outcome::failure(ExitCode::Failed,
                                      QString("%1: does not hold %2 as a folder")
                                          .arg(text(archive), text(_options.folder)));
    }

    /// What was read and agreed to is what must be restored.
    Outcome checkUnchanged() {
        ConfigUnit::File now{_file.path, _file.size};
        const Outcome outcome = _unit.digest(now);
        return !outcome.isDone() || now.digest == _file.digest
                   ? outcome
                   : refused("is not what it was when it was read, nothing was restored");
    }

    Outcome restore() {
        if (Interrupt::requested()) {
            return outcomeOf(Answer::Interrupted, _name);
        }
        bool flag = false;
        const Answer answer = _unit.restore(_options.folder, _options.archive, flag);
        Outcome outcome = outcomeOf(answer, _name);
        if (answer == Answer::Interrupted) {
            outcome.message += "; the unit goes on restoring";
            return outcome;
        }
        if (answer == Answer::Success && !flag) {
            return Outcome::failure(ExitCode::Failed,
                                    _name +
                                        ": the daemon restored nothing, it finds no such "
                                        "archive");
        }
        // Never sent again: the archive may be used up, and the application restarting.
        const bool isLost = answer != Answer::Success;
        if (isLost && _unit.awaitIdle() != Answer::Success) {
            outcome.message +=
                "; whether it was restored is not known: look with config list and "
                "config diff before you repeat it";
            return outcome;
        }
        if (isLost) {
            _context.output.talk(outcome.message + "; looking at what is there");
        }
        return checkResult();
    }

    /// The restart that a restore asks for may take the daemon with it.
    Outcome checkResult() {
        Outcome outcome = checkOnce();
        for (int i = 0; i < _context.options.retries && outcome.mayRetry; ++i) {
            _unit.awaitIdle();
            outcome = checkOnce();
        }
        return outcome;
    }

    Outcome checkOnce() {
        FileService::Entry entry;
        Outcome outcome = _unit.find(_options.archive, entry);
        if (outcome.isDone() && entry.kind != FileService::Entry::Kind::Missing) {
            return Outcome::failure(ExitCode::Failed,
                                    _name +
                                        ": is still there, so the daemon did not restore it; "
                                        "its storage may be full");
        }
        ConfigComparison comparison(_context, _contents, _options.folder);
        if (outcome.isDone()) {
            outcome = comparison.run();
        }
        return outcome.isDone() ? judge(comparison) : outcome;
    }

    Outcome judge(const ConfigComparison& comparison) {
        const QByteArrayList different = namesOf(comparison, State::Differs) +
                                         namesOf(comparison, State::OnlyArchive) +
                                         namesOf(comparison, State::OnlyUnit);
        const int same = comparison.count(State::Same, true);
        const int unknown = comparison.count(State::Unknown, true);
        _context.output.object({{"command", "config restore"},
                                {"step", "result"},
                                {"same", same},
                                {"different", arrayOf(different)},
                                {"notCompared", unknown}});
        if (!different.isEmpty()) {
            return Outcome::failure(
                ExitCode::Integrity,
                QString("%1: restored, but the unit does not have what the archive held: %2; the "
                        "application that restarts may have changed it already")
                    .arg(_name, some(different)));
        }
        _context.output.talk(QString("%1 restored from %2: %3 files are as in the archive%4")
                                 .arg(text(_options.folder), _name)
                                 .arg(same)
                                 .arg(unknown == 0
                                          ? QString()
                                          : QString(", %1 could not be compared").arg(unknown)));
        return Outcome::done();
    }

    Context& _context;
    const ConfigOptions& _options;
    ConfigUnit _unit;
    QString _name;
    ConfigContents _contents;
    ConfigUnit::File _file;  ///< the archive as it was read
    bool _isFolderThere = false;
};

}  // namespace

ExitCode configRestore(Context& context) {
    const Outcome outcome = ConfigRestore(context).run();
    if (!outcome.isDone()) {
        context.output.error(outcome, text(context.options.config.archive));
    }
    return outcome.code;
}

}  // namespace storagectl
