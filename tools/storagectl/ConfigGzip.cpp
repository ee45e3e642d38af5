#include "tools/storagectl/ConfigGzip.h"

#include <array>
#include <utility>

namespace storagectl {

namespace {

constexpr int kGzipOnly = 16;
constexpr std::size_t kBufferBytes = 64 * 1024;

}  // namespace

ConfigGzip::ConfigGzip(Unpacked unpacked) : _unpacked(std::move(unpacked)) {
    if (inflateInit2(&_stream, kGzipOnly + MAX_WBITS) != Z_OK) {
        fail("it cannot be unpacked here, memory is short");
    }
}

ConfigGzip::~ConfigGzip() {
    inflateEnd(&_stream);
}

bool ConfigGzip::add(const QByteArray& packed) {
    std::array<char, kBufferBytes> buffer;
    // zlib does not write to what it reads.
    _stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.constData()));
    _stream.avail_in = static_cast<uInt>(packed.size());
    bool isFull = false;
    while (_fault.isEmpty() && (_stream.avail_in > 0 || isFull)) {
        if (_isWhole) {
            return fail("something follows its end");
        }
        _stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
        _stream.avail_out = static_cast<uInt>(buffer.size());
        const int result = inflate(&_stream, Z_NO_FLUSH);
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
            return fail("it is not what gzip packs");
        }
        const auto length = static_cast<qsizetype>(buffer.size() - _stream.avail_out);
        _bytes += length;
        _isWhole = result == Z_STREAM_END;
        isFull = _stream.avail_out == 0 && !_isWhole;
        if (_bytes > kMostBytes) {
            return fail("more than 4 GB are packed in it");
        }
        if (!_unpacked(buffer.data(), length)) {
            return false;
        }
    }
    return _fault.isEmpty();
}

bool ConfigGzip::fail(const char* fault) {
    _fault = QString::fromLatin1(fault);
    return false;
}

}  // namespace storagectl
