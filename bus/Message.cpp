#include "bus/Message.h"

#include <QtEndian>

#include <cstdlib>
#include <new>
#include <utility>

namespace {

/// Command 0 and the NUL of an empty format: a fresh message costs no allocation.
constexpr char kFreshMessage[MessageWire::kCommandBytes + 1] = {};

}  // namespace

Message::Message() : _bytes(QByteArray::fromRawData(kFreshMessage, sizeof kFreshMessage)) {}

bool Message::construct(const void* data, int length) {
    _tag = 0;
    const auto* bytes = static_cast<const char*>(data);
    MessageWire::ParameterOffsets offsets;
    if (!MessageWire::decode(bytes, length, offsets)) {
        becomeMalformed();
        return false;
    }
    _bytes = QByteArray(bytes, length);
    _parameterOffsets = std::move(offsets);
    return true;
}

bool Message::constructFromValues(int command, const char* format,
                                  std::initializer_list<MessageValue> values) {
    if (!MessageWire::encode(command, format, values, _bytes, _parameterOffsets)) {
        becomeMalformed();
        return false;
    }
    return true;
}

void Message::becomeMalformed() {
    MessageWire::encode(kMalformedCommand, "", {}, _bytes, _parameterOffsets);
}

int Message::command() const {
    return qFromLittleEndian<qint32>(_bytes.constData());
}

const char* Message::formatString() const {
    return _bytes.constData() + MessageWire::kCommandBytes;
}

bool Message::hasParameter(int index, char letter) const {
    return index >= 0 && index < parameterCount() && formatString()[index] == letter;
}

qint32 Message::parameterAsInt32(int index) const {
    if (!hasParameter(index, 'i')) {
        return 0;
    }
    return qFromLittleEndian<qint32>(_bytes.constData() + _parameterOffsets[index]);
}

unsigned char Message::parameterAsByte(int index) const {
    if (!hasParameter(index, 'c')) {
        return 0;
    }
    return static_cast<unsigned char>(_bytes.at(_parameterOffsets[index]));
}

const char* Message::parameterAsString(int index) const {
    return hasParameter(index, 'S') ? _bytes.constData() + _parameterOffsets[index] : "";
}

const char* Message::parameterAsBLOB(int index, int& length) const {
    length = 0;
    if (!hasParameter(index, 'B')) {
        return nullptr;
    }
    const char* block = _bytes.constData() + _parameterOffsets[index];
    length = qFromLittleEndian<qint32>(block);
    return block + 4;
}

void* Message::operator new(std::size_t size) {
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void Message::operator delete(void* memory) noexcept {
    std::free(memory);
}
