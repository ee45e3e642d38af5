#include "tools/storagectl/ListingRequest.h"

#include "bus/Clock.h"
#include "core/shared/StoragePaths.h"
#include "core/shared/Tokens.h"
#include "tools/storagectl/LocalSource.h"
#include "tools/storagectl/RemoteCopy.h"

#include <QFile>

namespace storagectl {

namespace {

constexpr int kSubscriptionMilliseconds = 2000;
constexpr char kNotificationFormat[] = "iiiSSiiii";

/// What the daemon notifies the unit's users with.
QByteArray notificationText(const QByteArray& root) {
    return root.startsWith(StoragePaths::kCardRoot)
               ? "Creating file listings for card storage : data availability may be out of date"
               : "Generating file listings for " + root;
}

Outcome readAll(int descriptor, const QByteArray& path, const QByteArray& root, Listing& listing) {
    QFile file;
    if (!file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle) ||
        !file.seek(0)) {
        return localFailure(path, "cannot be read");
    }
    const QByteArray contents = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        return localFailure(path, "cannot be read");
    }
    listing = Listing(contents, root);
    return Outcome::done();
}

}  // namespace

ListingRequest::ListingRequest(Context& context, const QByteArray& folder, const QByteArray& root)
    : _context(context), _connection(context.files.connection()), _folder(folder), _root(root) {}

Outcome ListingRequest::make(QByteArray& path) {
    double unused = 0;
    const Answer present = pingOnce(_context.files, unused);
    if (present != Answer::Success) {
        return outcomeOf(present, "listing");
    }
    listen();
    Message request;
    request.construct(MESSAGE_GENERATE_LISTING, "SS", _folder.constData(), _root.constData());
    _connection.post(request);
    Connection::Answered answered;
    const Answer answer = await(answered);
    _connection.listen({}, {});
    _context.output.status({});
    if (answer == Answer::Interrupted) {
        return Outcome::failure(ExitCode::Interrupted,
                                "interrupted; the daemon goes on with the listing");
    }
    if (answer != Answer::Success) {
        return outcomeOf(answer, "listing of " + text(_root));
    }
    if (answered.request.command() != MESSAGE_GENERATE_LISTING) {
        return Outcome::failure(ExitCode::Failed,
                                QString("listing of %1: no word of it for %2 s, but the daemon "
                                        "is there; it may be busy with too many")
                                    .arg(text(_root))
                                    .arg(_context.options.mirror.newsSeconds));
    }
    path = answered.reply.parameterAsString(1);
    const bool isOurs = answered.reply.parameterAsString(0) == _root;
    return path.isEmpty() ? whyNone()
                          : outcomeOf(isOurs ? Answer::Success : Answer::Unfit, "listing");
}

void ListingRequest::listen() {
    _begun = _lastNews = Clock::ticks();
    if (_root.startsWith("/root")) {
        return;
    }
    _connection.listen(
        {Tokens::kNotificationAdd, Tokens::kNotificationUpdate},
        [this](const QByteArray& token, const PubSubMessage& delivery) { take(token, delivery); });
    _connection.bus().awaitSubscriptions(kSubscriptionMilliseconds);
}

/// The answer to the listing, or to the last question whether the daemon is there where the
/// listing counts as lost.
Answer ListingRequest::await(Connection::Answered& answered) {
    bool isAsked = false;
    for (;;) {
        showProgress();
        const Answer answer = _connection.next(answered);
        if (answer == Answer::NoDaemon && !isAsked) {
            _connection.post(pingRequest());
            isAsked = true;
            continue;
        }
        const bool isAnswer = answer == Answer::Refused || answer == Answer::Unfit;
        if (!isAnswer || answered.request.command() == MESSAGE_GENERATE_LISTING) {
            return answer;
        }
        isAsked = false;
        if (Clock::ticksSince(_lastNews) >= _context.options.mirror.newsSeconds * 1000) {
            return Answer::Success;
        }
    }
}

void ListingRequest::take(const QByteArray& token, const PubSubMessage& delivery) {
    Message message;
    message.construct(delivery.data, delivery.length);
    if (qstrcmp(message.formatString(), kNotificationFormat) != 0 ||
        message.parameterAsString(4) != notificationText(_root)) {
        return;
    }
    const std::pair<int, int> sender{message.parameterAsInt32(0), message.parameterAsInt32(1)};
    const bool isFirst = token == Tokens::kNotificationAdd && _notification.first < 0;
    if (isFirst) {
        _notification = sender;
    }
    if (sender != _notification) {
        return;
    }
    _lastNews = Clock::ticks();
    _total = message.parameterAsInt32(6);
    _done = message.parameterAsInt32(7);
    showProgress();
}

void ListingRequest::showProgress() {
    const Output::Style& style = _context.output.style();
    if (style.quiet || style.json) {
        return;
    }
    const QString steps = _total > 0 ? QString(", %1 of %2 entries").arg(_done).arg(_total) : "";
    _context.output.status(QString("listing of %1%2, %3 s")
                               .arg(text(_root), steps)
                               .arg(Clock::ticksSince(_begun) / 1000));
}

/// The daemon does not say.
Outcome ListingRequest::whyNone() {
    FileService::Entry entry;
    const Answer answer = _context.files.lookUp(_root, entry);
    if (answer == Answer::Success && entry.kind == FileService::Entry::Kind::Missing) {
        return Outcome::failure(ExitCode::NotFound, text(_root) + ": not found");
    }
    if (answer == Answer::Success && entry.kind == FileService::Entry::Kind::File) {
        return Outcome::failure(ExitCode::Failed, text(_root) + ": is a file, not a directory");
    }
    return Outcome::failure(ExitCode::Failed,
                            QString("%1: the daemon made no listing: the directory is not there, "
                                    "or %2/%3 is no folder that it can write")
                                .arg(text(_root), StoragePaths::kDataRoot, text(_folder)));
}

QByteArray listingPath(const QByteArray& folder, const QByteArray& root) {
    QByteArray key = root;
    key.replace('/', '.').replace('\\', '.');
    return QByteArray(StoragePaths::kDataRoot) + '/' + folder + "/.files." + key;
}

Outcome fetchListing(Context& context, const QByteArray& path, const QByteArray& root,
                     Listing& listing, qint64& milliseconds) {
    const quint32 start = Clock::ticks();
    int descriptor = -1;
    const Outcome outcome = fetchToTemporary(context, path, descriptor);
    milliseconds = Clock::ticksSince(start);
    return outcome.isDone() ? readAll(descriptor, path, root, listing) : outcome;
}

Outcome readListing(const QByteArray& localPath, const QByteArray& root, Listing& listing) {
    int descriptor = -1;
    const Outcome outcome = openLocalFile(localPath, descriptor);
    return outcome.isDone() ? readAll(descriptor, localPath, root, listing) : outcome;
}

void tellUnfitLines(Output& output, const Listing& listing, const QByteArray& path) {
    if (listing.unfitLines() > 0) {
        output.talk(QString("%1: %2 lines are no files below the root, and are left out")
                        .arg(text(path))
                        .arg(listing.unfitLines()));
    }
}

}  // namespace storagectl
