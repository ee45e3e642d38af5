#include "tools/storagectl/Recording.h"

#include "tools/storagectl/FileService.h"
#include "tools/storagectl/LocalSource.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace storagectl {

using namespace DataFileFormat;

Recording::~Recording() {
    if (_descriptor >= 0) {
        ::close(_descriptor);
    }
}

Outcome Recording::adopt(int descriptor, const QByteArray& path) {
    _descriptor = descriptor;
    _path = path;
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0) {
        return localFailure(path, "cannot be read");
    }
    _size = status.st_size;
    if (_size == 0) {
        return Outcome::failure(ExitCode::Integrity, text(path) + ": empty, not even a header");
    }
    if (!read(0, kFixedHeaderBytes, _header)) {
        return Outcome::failure(
            ExitCode::Integrity,
            text(path) + QString(": no header: it has 80 bytes, and the file %1").arg(_size));
    }
    readHeader();
    return Outcome::done();
}

quint32 Recording::version() const {
    return field(_header.constData(), kVersionOffset);
}

quint32 Recording::created() const {
    return field(_header.constData(), kCreatedOffset);
}

quint32 Recording::statedHeaderSize() const {
    return field(_header.constData(), kHeaderSizeOffset);
}

quint32 Recording::statedTypes() const {
    return DataFileFormat::statedTypes(_header.constData());
}

QString Recording::source() const {
    const char* const name = _header.constData() + kSourceOffset;
    return QString::fromLatin1(name, static_cast<qsizetype>(::strnlen(name, kSourceBytes)));
}

void Recording::readHeader() {
    const qint64 stated = statedHeaderSize();
    const qint64 byTypes = kFixedHeaderBytes + qint64{kDescriptorBytes} * statedTypes();
    qint64 wanted = stated;
    if (stated < kFixedHeaderBytes || stated > kMaximumHeaderBytes || stated > _size) {
        _damage.append(QString("the header says that it has %1 bytes, which the daemon refuses (80 "
                               "to 8192, and no more than the file)")
                           .arg(stated));
        wanted =
            byTypes <= std::min<qint64>(_size, kMaximumHeaderBytes) ? byTypes : kFixedHeaderBytes;
    } else if (stated < byTypes) {
        _damage.append(QString("the header says that it describes %1 record types, and has room "
                               "for %2")
                           .arg(statedTypes())
                           .arg((stated - kFixedHeaderBytes) / kDescriptorBytes));
    }
    QByteArray rest;
    if (read(kFixedHeaderBytes, wanted - kFixedHeaderBytes, rest)) {
        _header += rest;
    }
    _lengths = RecordLengths(_header.constData(), static_cast<int>(_header.size()));
}

bool Recording::read(qint64 offset, qint64 length, QByteArray& bytes) const {
    bytes.resize(length);
    qint64 got = 0;
    while (got < length) {
        const ssize_t step = ::pread(_descriptor, bytes.data() + got,
                                     static_cast<std::size_t>(length - got), offset + got);
        if (step == 0 || (step < 0 && errno != EINTR)) {
            return false;
        }
        got += std::max<ssize_t>(0, step);
    }
    return true;
}

}  // namespace storagectl
