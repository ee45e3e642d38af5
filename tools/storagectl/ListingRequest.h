#pragma once

#include "tools/storagectl/Commands.h"
#include "tools/storagectl/Listing.h"

#include <utility>

namespace storagectl {

/// Has the daemon write a listing of a root into a client's folder. A child of the daemon walks
/// the tree, which may take long: as long as the daemon answers, only `newsSeconds` without a
/// word of the listing end the wait. Roots below "/root" give no word before their end; for all
/// others the unit is notified of the progress, and so is the user. Nothing stops the child: one
/// that is not waited for goes on.
class ListingRequest {
public:
    ListingRequest(Context& context, const QByteArray& folder, const QByteArray& root);

    /// `path` is the listing's on the unit, valid with Done. NotFound where there is no such root.
    Outcome make(QByteArray& path);

private:
    void listen();
    Answer await(Connection::Answered& answered);
    void take(const QByteArray& token, const PubSubMessage& delivery);
    void showProgress();
    Outcome whyNone();

    Context& _context;
    Connection& _connection;
    QByteArray _folder;
    QByteArray _root;
    std::pair<int, int> _notification = {-1, -1};  ///< process and number
    int _total = 0;
    int _done = 0;
    quint32 _begun = 0;
    quint32 _lastNews = 0;
};

/// Where the listing of a root lies in a client's folder.
QByteArray listingPath(const QByteArray& folder, const QByteArray& root);

/// Fetches a listing of the unit. `milliseconds` is how long that took.
Outcome fetchListing(Context& context, const QByteArray& path, const QByteArray& root,
                     Listing& listing, qint64& milliseconds);
/// Reads one from a local file.
Outcome readListing(const QByteArray& localPath, const QByteArray& root, Listing& listing);
/// Tells of lines that were left out, if there are any.
void tellUnfitLines(Output& output, const Listing& listing, const QByteArray& path);

}  // namespace storagectl
