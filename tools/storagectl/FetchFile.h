#pragma once

#include "tools/storagectl/Fetch.h"
#include "tools/storagectl/PartialFile.h"
#include "tools/storagectl/StreamReader.h"

#include <QCryptographicHash>

#include <functional>
#include <utility>
#include <vector>

namespace storagectl {

/// One file on its way to its place: what is here of it, with its digest, and what the daemon says
/// of it. It is asked for with the digest of what is here, until the answer is that nothing is
/// left: the proof that what is here is the file.
class FetchFile {
public:
    explicit FetchFile(const FetchItem& item);
    FetchFile(const FetchFile&) = delete;
    FetchFile& operator=(const FetchFile&) = delete;

    /// Opens the partial file; without one, takes the target for the prefix. The target is not
    /// changed before the rename.
    Outcome open();
    /// The line of a request that asks for the rest, or for the proof.
    QByteArray requestLine() const;

    /// What the daemon says of it. A failure of its own is `outcome`.
    void begin(StreamEvents::Start start);
    void take(const char* data, qint64 length);
    void fail(const QByteArray& reason);
    /// Whether the daemon has more of it, as far as the listing knows.
    bool expectsMore() const { return !_isArriving || _length < _item.size; }
    /// The daemon goes on to the next one.
    void endRequest();
    /// The stream broke, and may have lost a piece before: what the daemon seemed to say of the
    /// file is not relied on. Bytes are, as far as the next answer agrees with their digest.
    void doubt();

    const FetchItem& item() const { return _item; }
    const Outcome& outcome() const { return _outcome; }
    void giveUp(const Outcome& outcome) { _outcome = outcome; }
    /// Failed whatever else the daemon says of it.
    bool isLost() const;
    qint64 length() const { return _length; }
    /// What the partial file holds for the next run.
    qint64 keptLength() const { return _isTarget ? 0 : _length; }
    bool isProved() const { return _isProved; }
    /// Why it was begun anew since this was last asked; empty if it was not.
    QString takeReason() { return std::exchange(_reason, {}); }
    bool isDiskFull() const { return _partial.isDiskFull(); }

    /// Gives it its time, once it is proved; what is in place already needs nothing else.
    Outcome stamp();
    bool isInPlace() const { return _isTarget; }
    PartialFile& partial() { return _partial; }
    /// Lets go of the partial file; removes it where it was not needed.
    void close();

private:
    void takeTarget();
    Outcome readTarget(qint64 length, const std::function<Outcome(const QByteArray&)>& take) const;
    void append(const QByteArray& bytes);
    void resume();
    void change(const QString& fault);
    void checkClaim();
    void restart(const QString& reason);

    FetchItem _item;
    PartialFile _partial;
    QCryptographicHash _digest{QCryptographicHash::Md5};
    qint64 _length = 0;
    bool _isTarget = false;  ///< what is here is the target
    bool _isWhole = false;   ///< as far as the daemon said, and not proved
    bool _isProved = false;
    bool _isArriving = false;  ///< the bytes that follow belong to it
    int _changes = 0;
    QString _reason;
    Outcome _outcome;
};

/// Flushes what arrived of several files.
Outcome flushAll(const std::vector<FetchFile*>& files);

}  // namespace storagectl
