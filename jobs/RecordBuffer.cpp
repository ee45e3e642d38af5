#include "jobs/RecordBuffer.h"

#include "jobs/DownloadStream.h"

#include <QtEndian>

void RecordBuffer::add(unsigned char type, quint16 length, const char* data) {
    _bytes.reserve(kCapacityBytes);
    _bytes.erase(_bytes.begin(), _bytes.begin() + _sent);
    _sent = 0;
    char header[DownloadStream::kRecordHeaderBytes] = {static_cast<char>(type)};
    qToLittleEndian<quint16>(length, header + 1);
    _bytes.insert(_bytes.end(), header, header + sizeof header);
    if (length > 0) {
        _bytes.insert(_bytes.end(), data, data + length);
    }
}

void RecordBuffer::remove(int count) {
    _sent += count;
}
