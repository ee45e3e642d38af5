#include "tools/storagectl/Commands.h"

namespace storagectl {

namespace {

/// As md5sum writes it: a name with a line feed or a backslash is escaped, and the line says so
/// by a backslash in front.
QByteArray digestLine(const QByteArray& digest, const QByteArray& path) {
    QByteArray name = path;
    name.replace('\\', "\\\\").replace('\n', "\\n").replace('\r', "\\r");
    return (name == path ? "" : "\\") + digest.toHex() + "  " + name;
}

Outcome hashOne(Context& context, const QByteArray& path) {
    FileService::OpenFile file;
    Answer answer = context.files.open(path, FileService::ReadOnly, file);
    if (answer == Answer::Refused) {
        return context.files.explain(path, "open");
    }
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(path));
    }
    if (file.tooLarge) {
        context.files.close(file);
        return tooLargeFor(path);
    }
    QByteArray digest;
    answer = context.files.hash(file, 0, file.size, digest);
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(path));
    }
    context.files.close(file);
    context.output.object({{"command", "hash"},
                           {"file", text(path)},
                           {"size", file.size},
                           {"md5", QString::fromLatin1(digest.toHex())}});
    context.output.line(text(digestLine(digest, path)));
    return Outcome::done();
}

}  // namespace

ExitCode hash(Context& context) {
    return forEachFile(context,
                       [&context](const QByteArray& path) { return hashOne(context, path); });
}

}  // namespace storagectl
