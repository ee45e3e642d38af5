#include "tools/storagectl/ConfigNames.h"

#include "bus/Clock.h"
#include "tools/storagectl/FileService.h"
#include "tools/storagectl/Output.h"

#include <QDateTime>

#include <cctype>
#include <cstring>

namespace storagectl {

namespace {

constexpr char kEnding[] = ".configBackup";
/// The daemon packs in it.
constexpr char kScratchName[] = "configBackup";
constexpr char kHarmlessSigns[] = "._-+,=@";
constexpr qsizetype kLongestName = 255;

bool isHarmless(QChar letter) {
    const char16_t code = letter.unicode();
    if (code >= 0x80) {
        return !letter.isSpace() && letter.isPrint();
    }
    return std::isalnum(static_cast<int>(code)) != 0 ||
           (code != 0 && std::strchr(kHarmlessSigns, static_cast<int>(code)) != nullptr);
}

/// Empty where it is a plain name.
QString faultOf(const QByteArray& name) {
    const QString decoded = text(name);
    if (name.isEmpty()) {
        return "an empty name";
    }
    if (name == "." || name == ".." || name.contains('/')) {
        return "a path, not the name of something right below /root/config";
    }
    if (name.compare(kScratchName, Qt::CaseInsensitive) == 0) {
        return "the name of the folder that the daemon packs in";
    }
    if (name.startsWith('-')) {
        return "a name that begins like an option";
    }
    if (name.size() > kLongestName) {
        return "a name of more than 255 bytes";
    }
    for (const QChar letter : decoded) {
        if (!isHarmless(letter) || escaped(letter) != letter) {
            return "a name with a blank, a control character or a character that has a meaning "
                   "to a shell; letters, digits and . _ - + , = @ are harmless";
        }
    }
    return {};
}

Outcome check(const QByteArray& name, const QString& fault) {
    return fault.isEmpty()
               ? checkWireName(name)
               : Outcome::failure(ExitCode::Unsafe, QString("\"%1\": %2").arg(text(name), fault));
}

QByteArray stamp() {
    return QDateTime::fromSecsSinceEpoch(Clock::wallSeconds()).toString("yyyyMMdd-HHmmss").toUtf8();
}

}  // namespace

namespace ConfigNames {

bool isArchive(const QByteArray& name) {
    constexpr qsizetype kEndingBytes = sizeof kEnding - 1;
    return name.size() > kEndingBytes &&
           name.right(kEndingBytes).compare(kEnding, Qt::CaseInsensitive) == 0;
}

Outcome checkFolder(const QByteArray& name) {
    const QString fault = faultOf(name);
    return check(name,
                 fault.isEmpty() && isArchive(name) ? "an archive's name, not a folder's" : fault);
}

Outcome checkArchive(const QByteArray& name) {
    const QString fault = faultOf(name);
    return check(name, fault.isEmpty() && !isArchive(name)
                           ? "an archive's name ends in .configBackup"
                           : fault);
}

QByteArray archiveFor(const QByteArray& folder) {
    return folder + '-' + stamp() + kEnding;
}

QByteArray safetyArchiveFor(const QByteArray& folder) {
    return folder + "-before-restore-" + stamp() + kEnding;
}

}  // namespace ConfigNames

}  // namespace storagectl
