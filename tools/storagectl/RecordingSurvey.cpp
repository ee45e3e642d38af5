#include "tools/storagectl/RecordingSurvey.h"

#include <algorithm>

namespace storagectl {

namespace {

using Kind = RecordField::Kind;

bool isSample(const Recording::Record& record) {
    return record.type > DataFileFormat::kTimeStep;
}

}  // namespace

void RecordingSurvey::Steps::add(quint32 from, quint32 to) {
    if (++count <= kMaximumKept) {
        kept.append({from, to});
    }
}

void RecordingSurvey::Sequence::add(quint32 time) {
    if (_records++ == 0) {
        _first = _last = _previous = time;
    }
    if (time > _previous && _steps.size() < kMaximumSteps) {
        _steps.push_back(time - _previous);
    }
    _first = std::min(_first, time);
    _last = std::max(_last, time);
    _previous = time;
}

quint32 RecordingSurvey::Sequence::usualStep() const {
    if (_steps.empty()) {
        return 0;
    }
    std::vector<quint32> steps = _steps;
    const auto middle = steps.begin() + static_cast<std::ptrdiff_t>(steps.size() / 2);
    std::nth_element(steps.begin(), middle, steps.end());
    return *middle;
}

RecordingSurvey::RecordingSurvey(const Recording& recording) : _damage(recording.damage()) {
    count(recording);
    resolveKinds();
    findSteps(recording);
}

void RecordingSurvey::count(const Recording& recording) {
    const qint64 left = recording.forEach([&](const Recording::Record& record) {
        if (record.length < record.wanted) {
            _cutBytes = record.length;
            _cutWanted = record.wanted;
            return;
        }
        if (!isSample(record)) {
            const bool isEmpty = record.type == DataFileFormat::kEmptyRecord;
            ++(isEmpty ? _emptyRecords : _timeRecords);
            return;
        }
        if (!recording.isKnown(record.type) && _unknown++ == 0) {
            _firstUnknown = record.offset;
        }
        countSample(recording, record);
    });
    describeDamage(left);
}

void RecordingSurvey::countSample(const Recording& recording, const Recording::Record& record) {
    Type& type = _types[record.type];
    if (type.times.records() == 0) {
        type.layout = layoutOf(recording.header(), record.type, record.wanted);
    }
    type.times.add(record.time);
    _all.add(record.time);
    for (RecordField& field : type.layout.fields) {
        // Signed from the first value on that is no real.
        if (field.kind == Kind::RealOrSigned && !looksReal(record.bytes + field.offset)) {
            field.kind = Kind::Signed;
        }
    }
}

void RecordingSurvey::resolveKinds() {
    for (Type& type : _types) {
        for (RecordField& field : type.layout.fields) {
            field.kind = field.kind == Kind::RealOrSigned ? Kind::Real : field.kind;
        }
    }
}

void RecordingSurvey::findSteps(const Recording& recording) {
    const quint32 longestStep = _all.longestStep();
    quint32 previous = 0;
    bool isFirst = true;
    recording.forEach([&](const Recording::Record& record) {
        if (!isSample(record) || record.length < record.wanted) {
            return;
        }
        if (!isFirst && record.time < previous) {
            _jumps.add(previous, record.time);
        } else if (!isFirst && record.time - previous > longestStep) {
            _gaps.add(previous, record.time);
        }
        previous = record.time;
        isFirst = false;
    });
}

void RecordingSurvey::describeDamage(qint64 left) {
    if (_unknown > 0) {
        _damage.append(QString("%1 bytes of unknown types, the first at byte %2: what follows each "
                               "may be misread")
                           .arg(_unknown)
                           .arg(_firstUnknown));
    }
    if (_cutBytes > 0) {
        _damage.append(QString("the last record is cut: it has %1 of its %2 bytes")
                           .arg(_cutBytes)
                           .arg(_cutWanted));
    }
    if (left == 1) {
        _damage.append("the last record is cut: it has its type only");
    } else if (left > 1) {
        _damage.append(QString("the last %1 bytes cannot be read").arg(left));
    }
}

}  // namespace storagectl
