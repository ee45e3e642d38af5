#include "jobs/PrefixHash.h"

#include <algorithm>

namespace {

constexpr int kReadBufferBytes = 32 * 1024;

}  // namespace

bool PrefixHash::addPiece(QFile& file) {
    char buffer[kReadBufferBytes];
    int left = std::min(_remaining, kPieceBytes);
    while (left > 0) {
        const qint64 count = file.read(buffer, std::min(left, kReadBufferBytes));
        if (count < 1) {
            return false;
        }
        _hash.addData(QByteArrayView(buffer, count));
        left -= static_cast<int>(count);
        _remaining -= static_cast<int>(count);
    }
    return true;
}
