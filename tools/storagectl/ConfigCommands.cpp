#include "tools/storagectl/Commands.h"
#include "tools/storagectl/ConfigBackup.h"
#include "tools/storagectl/ConfigComparison.h"
#include "tools/storagectl/ConfigNames.h"

#include <algorithm>

namespace storagectl {

namespace {

using State = ConfigDifference::State;

ExitCode finish(Context& context, const Outcome& outcome, const QByteArray& subject) {
    if (!outcome.isDone()) {
        context.output.error(outcome, text(subject));
    }
    return outcome.code;
}

/// Only a listing tells an empty folder from none.
Outcome checkFolderIsThere(Context& context, const QByteArray& folder) {
    FileService::Entry entry;
    ConfigUnit unit(context);
    Outcome outcome = unit.find(folder, entry);
    if (!outcome.isDone() || entry.kind == FileService::Entry::Kind::Directory) {
        return outcome;
    }
    QList<RemoteEntry> entries;
    outcome = unit.list({}, entries);
    const bool isThere = std::any_of(entries.begin(), entries.end(), [&](const auto& listed) {
        return listed.path == folder && listed.isDirectory;
    });
    return isThere || !outcome.isDone()
               ? outcome
               : Outcome::failure(ExitCode::NotFound,
                                  text(ConfigUnit::pathOf(folder)) +
                                      ": there is no such folder on the unit, nothing was packed");
}

Outcome backUp(Context& context, const QByteArray& folder, const QByteArray& archive) {
    Outcome outcome = ConfigNames::checkFolder(folder);
    if (outcome.isDone()) {
        outcome = ConfigNames::checkArchive(archive);
    }
    if (outcome.isDone()) {
        outcome = checkFolderIsThere(context, folder);
    }
    if (!outcome.isDone()) {
        return outcome;
    }
    ConfigBackup backup(context, folder, archive);
    outcome = backup.run(context.options.config.replace);
    if (outcome.isDone()) {
        const QByteArray path = ConfigUnit::pathOf(archive);
        context.output.object({{"command", "config backup"},
                               {"folder", text(folder)},
                               {"archive", text(path)},
                               {"size", backup.size()}});
        context.output.line(text(path));
        context.output.talk(
            QString("%1 -> %2, %3 bytes").arg(text(folder), text(archive)).arg(backup.size()));
    }
    return outcome;
}

ExitCode fetchArchive(Context& context, const QByteArray& archive) {
    Options options = context.options;
    options.command = Command::Get;
    options.paths = {ConfigUnit::pathOf(archive)};
    Context fetching{options, context.output, context.files};
    return get(fetching);
}

QString modeText(const TarMember& member) {
    QString result = "-rwxrwxrwx";
    for (int bit = 0; bit < 9; ++bit) {
        if ((member.mode & (1 << (8 - bit))) == 0) {
            result[bit + 1] = '-';
        }
    }
    switch (member.kind) {
        case TarMember::Kind::Folder:
            result[0] = 'd';
            break;
        case TarMember::Kind::Link:
            result[0] = 'l';
            break;
        case TarMember::Kind::Special:
            result[0] = '?';
            break;
        case TarMember::Kind::File:
        case TarMember::Kind::HardLink:
            break;
    }
    return result;
}

const char* typeName(TarMember::Kind kind) {
    switch (kind) {
        case TarMember::Kind::Folder:
            return "directory";
        case TarMember::Kind::Link:
            return "link";
        case TarMember::Kind::Special:
            return "special";
        case TarMember::Kind::File:
        case TarMember::Kind::HardLink:
            break;
    }
    return "file";
}

/// Which folder comes back is said at the restore; any may.
bool mayComeBack(const TarMember& member) {
    const QByteArray top = member.name.split('/').first();
    const bool isFolder = member.kind == TarMember::Kind::Folder || member.name != top;
    return ConfigContents::comesBack(member, isFolder ? top : QByteArray());
}

void showMember(Context& context, const TarMember& member) {
    const bool isBack = mayComeBack(member);
    context.output.object({{"command", "config show"},
                           {"archive", text(context.options.config.archive)},
                           {"name", text(member.name)},
                           {"type", typeName(member.kind)},
                           {"mode", QString::number(member.mode, 8)},
                           {"size", member.size},
                           {"modified", isoTime(member.modified)},
                           {"target", text(member.target)},
                           {"md5", QString::fromLatin1(member.digest.toHex())},
                           {"comesBack", isBack}});
    const bool isLink = member.kind == TarMember::Kind::Link;
    const bool isFolder = member.kind == TarMember::Kind::Folder;
    context.output.line(QString("%1 %2 %3 %4  %5%6")
                            .arg(isBack ? "back" : "-   ", modeText(member))
                            .arg(member.size, 10)
                            .arg(isoTime(member.modified), -25)
                            .arg(text(member.name), isFolder ? "/" : "") +
                        (isLink ? " -> " + text(member.target) : QString()));
}

Outcome show(Context& context, const QByteArray& archive) {
    Outcome outcome = ConfigNames::checkArchive(archive);
    ConfigContents contents;
    ConfigUnit::File unused;
    if (outcome.isDone()) {
        outcome = ConfigUnit(context).read(archive, contents, unused);
    }
    for (const TarMember& member : contents.members()) {
        showMember(context, member);
    }
    if (!outcome.isDone()) {
        return outcome;
    }
    context.output.talk(QString("%1: %2 files, %3; \"back\" is what a restore of its folder brings "
                                "back")
                            .arg(text(archive))
                            .arg(contents.fileCount())
                            .arg(humanSize(contents.fileBytes())));
    return contents.hazards().isEmpty()
               ? outcome
               : Outcome::failure(
                     ExitCode::Unsafe,
                     QString("%1: not what a backup makes, it will not be restored: %2")
                         .arg(text(archive), contents.hazards().join("; ")));
}

QChar signOf(State state) {
    switch (state) {
        case State::OnlyUnit:
            return '+';
        case State::OnlyArchive:
            return '-';
        case State::Differs:
            return '*';
        case State::Unknown:
            return '!';
        case State::Same:
            break;
    }
    return '=';
}

void showDifference(Context& context, const ConfigDifference& difference) {
    const bool showsSame = context.options.config.all || context.output.style().verbose;
    if (difference.state == State::Same && !showsSame) {
        return;
    }
    const QString sign(signOf(difference.state));
    QJsonObject object{{"command", "config diff"},
                       {"file", text(difference.name)},
                       {"result", sign},
                       {"comesBack", difference.isRestored}};
    if (!difference.why.isEmpty()) {
        object.insert("why", difference.why);
    }
    context.output.object(object);
    QStringList notes = difference.why.isEmpty() ? QStringList() : QStringList(difference.why);
    if (!difference.isRestored && difference.state != State::Same) {
        notes.append("a restore leaves it");
    }
    context.output.line(sign + ' ' + text(difference.name) +
                        (notes.isEmpty() ? QString() : " (" + notes.join("; ") + ')'));
}

/// As a code: 3 where something could not be compared, 1 where something differs.
ExitCode summarize(Context& context, const ConfigComparison& comparison) {
    const int same = comparison.count(State::Same);
    const int incomparable = comparison.count(State::Unknown);
    const int differences = static_cast<int>(comparison.differences().size()) - same - incomparable;
    context.output.object({{"command", "config diff"},
                           {"same", same},
                           {"differences", differences},
                           {"incomparable", incomparable}});
    context.output.talk(QString("%1 the same, %2 differ, %3 not comparable")
                            .arg(same)
                            .arg(differences)
                            .arg(incomparable));
    if (incomparable > 0) {
        return ExitCode::Partly;
    }
    return differences > 0 ? ExitCode::Failed : ExitCode::Done;
}

/// The folder to compare, where none was named. None at all leaves the settings beside it.
Outcome chooseFolder(const ConfigContents& contents, const QByteArray& archive,
                     QByteArray& folder) {
    const QByteArrayList folders = contents.folders();
    if (folder.isEmpty() && folders.size() > 1) {
        return Outcome::failure(ExitCode::Usage,
                                QString("%1: holds several folders, name one with --folder: %2")
                                    .arg(text(archive), text(folders.join(", "))));
    }
    if (folder.isEmpty() && folders.size() == 1) {
        folder = folders.first();
    }
    return folder.isEmpty() || contents.hasFolder(folder)
               ? Outcome::done()
               : Outcome::failure(
                     ExitCode::NotFound,
                     QString("%1: holds no folder %2").arg(text(archive), text(folder)));
}

Outcome compareWithUnit(Context& context, const QByteArray& archive, QByteArray folder) {
    Outcome outcome = ConfigNames::checkArchive(archive);
    if (outcome.isDone() && !folder.isEmpty()) {
        outcome = ConfigNames::checkFolder(folder);
    }
    ConfigContents contents;
    ConfigUnit::File unused;
    if (outcome.isDone()) {
        outcome = ConfigUnit(context).read(archive, contents, unused);
    }
    if (outcome.isDone()) {
        outcome = chooseFolder(contents, archive, folder);
    }
    ConfigComparison comparison(context, contents, folder);
    if (outcome.isDone()) {
        outcome = comparison.run();
    }
    if (!outcome.isDone()) {
        return outcome;
    }
    for (const ConfigDifference& difference : comparison.differences()) {
        showDifference(context, difference);
    }
    outcome.code = summarize(context, comparison);
    return outcome;
}

}  // namespace

ExitCode configBackup(Context& context) {
    const ConfigOptions& options = context.options.config;
    const QByteArray archive =
        options.archive.isEmpty() ? ConfigNames::archiveFor(options.folder) : options.archive;
    const Outcome outcome = backUp(context, options.folder, archive);
    if (outcome.isDone() && !context.options.localTarget.isEmpty()) {
        return fetchArchive(context, archive);
    }
    return finish(context, outcome, archive);
}

ExitCode configList(Context& context) {
    QList<RemoteEntry> entries;
    const Outcome outcome = ConfigUnit(context).list({}, entries);
    std::sort(entries.begin(), entries.end(),
              [](const auto& left, const auto& right) { return left.path < right.path; });
    for (const RemoteEntry& entry : std::as_const(entries)) {
        if (entry.isDirectory || !ConfigNames::isArchive(entry.path)) {
            continue;
        }
        context.output.object({{"command", "config list"},
                               {"archive", text(entry.path)},
                               {"size", entry.size},
                               {"modified", isoTime(entry.modified)}});
        context.output.line(QString("%1 %2  %3")
                                .arg(entry.size, 11)
                                .arg(isoTime(entry.modified), -25)
                                .arg(text(entry.path)));
    }
    return finish(context, outcome, {});
}

ExitCode configShow(Context& context) {
    const QByteArray& archive = context.options.config.archive;
    return finish(context, show(context, archive), archive);
}

ExitCode configDiff(Context& context) {
    const ConfigOptions& options = context.options.config;
    const Outcome outcome = compareWithUnit(context, options.archive, options.folder);
    // That something differs was said, file by file.
    return outcome.message.isEmpty() ? outcome.code : finish(context, outcome, options.archive);
}

}  // namespace storagectl
