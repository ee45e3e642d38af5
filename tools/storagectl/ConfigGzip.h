#pragma once

#include <QByteArray>
#include <QString>

#include <zlib.h>

#include <functional>

namespace storagectl {

/// Unpacks one gzip stream that comes in pieces cut anywhere. Stricter than other readers: nothing
/// may follow the stream, and it may not unpack to more than kMostBytes, so that a small archive
/// cannot keep its reader busy for hours.
class ConfigGzip {
public:
    static constexpr qint64 kMostBytes = qint64{4} * 1024 * 1024 * 1024;

    /// Given what was unpacked, in order; says false to end the reading.
    using Unpacked = std::function<bool(const char* data, qsizetype length)>;

    explicit ConfigGzip(Unpacked unpacked);
    ~ConfigGzip();
    ConfigGzip(const ConfigGzip&) = delete;
    ConfigGzip& operator=(const ConfigGzip&) = delete;

    /// False once reading on makes no sense: `fault` says why, or `unpacked` said false.
    bool add(const QByteArray& packed);
    /// Whether the stream's end was seen, its checksum and its length agreeing.
    bool isWhole() const { return _isWhole; }
    const QString& fault() const { return _fault; }

private:
    bool fail(const char* fault);

    Unpacked _unpacked;
    z_stream _stream = {};
    qint64 _bytes = 0;
    bool _isWhole = false;
    QString _fault;
};

}  // namespace storagectl
