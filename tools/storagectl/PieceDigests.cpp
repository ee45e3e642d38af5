#include "tools/storagectl/PieceDigests.h"

#include <algorithm>

namespace storagectl {

void PieceDigests::add(const char* data, qint64 length) {
    while (length > 0) {
        const qint64 room = kPieceBytes - _length % kPieceBytes;
        const qint64 step = std::min(room, length);
        _last.addData(QByteArrayView(data, step));
        data += step;
        length -= step;
        _length += step;
        if (step == room) {
            _whole.append({_length - kPieceBytes, kPieceBytes, _last.result()});
            _last.reset();
        }
    }
}

void PieceDigests::clear() {
    _whole.clear();
    _last.reset();
    _length = 0;
}

QList<PieceDigests::Piece> PieceDigests::pieces() const {
    QList<Piece> result = _whole;
    const qint64 rest = _length % kPieceBytes;
    if (rest > 0) {
        result.append({_length - rest, rest, _last.result()});
    }
    return result;
}

}  // namespace storagectl
