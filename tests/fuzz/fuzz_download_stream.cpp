#include "bus/DebugText.h"
#include "tests/fuzz/DownloadRun.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/UnitRoots.h"

#include <QCryptographicHash>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

/// Files of any content and length, whole or resumed, on a connection that drains as it likes, with
/// a clock that goes as it likes: what the stream says is what the files hold. The bytes of the
/// input are also decoded as a stream themselves, which the decoder must outlive.

namespace {

constexpr int kMostFiles = 4;
constexpr std::size_t kMostBytes = 140'000;

struct File {
    std::string bytes;
    std::size_t offset = 0;
    bool isHashRight = true;

    bool isResumed() const { return isHashRight && offset > 0 && offset <= bytes.size(); }
};

/// A pattern and how often it comes, again and again, up to a length near a block's.
std::string takeBytes(FuzzInput& input) {
    constexpr std::size_t kLengths[] = {0,     1,     8143,  8146,   8147,   8150,  64511,
                                        64512, 64513, 64515, 129023, 129024, 129025};
    const std::size_t limit = std::min(
        kLengths[input.takeByte() % std::size(kLengths)] + input.takeByte() % 4, kMostBytes);
    std::string bytes;
    unsigned noise = input.takeByte();
    while (bytes.size() < limit) {
        const std::string pattern = input.takeBlock();
        const std::size_t length = (input.takeByte() + 1U) * 256;
        for (std::size_t i = 0; i < length && bytes.size() < limit; ++i) {
            // Without a pattern it is what no compressor shortens.
            noise = noise * 1664525U + 1013904223U;
            bytes.push_back(pattern.empty() ? static_cast<char>(noise >> 24)
                                            : pattern[i % pattern.size()]);
        }
    }
    return bytes;
}

std::string pathOf(std::size_t index) {
    return "/root/data/" + std::to_string(index);
}

std::vector<File> takeFiles(FuzzInput& input) {
    std::vector<File> files(1 + input.takeByte() % kMostFiles);
    for (std::size_t i = 0; i < files.size(); ++i) {
        files[i].bytes = takeBytes(input);
        const unsigned choice = input.takeByte();
        files[i].isHashRight = choice % 4 != 3;
        const std::size_t offsets[] = {0, files[i].bytes.size(), files[i].bytes.size() / 2, 1};
        files[i].offset = offsets[choice / 4 % 4];
        std::ofstream(pathOf(i), std::ios::binary) << files[i].bytes;
    }
    return files;
}

QString requestOf(const std::vector<File>& files) {
    QStringList lines;
    for (std::size_t i = 0; i < files.size(); ++i) {
        QString line = QString::fromStdString(pathOf(i));
        if (files[i].offset > 0) {
            const std::string prefix = files[i].bytes.substr(0, files[i].offset);
            const QByteArray hash = QCryptographicHash::hash(
                prefix + (files[i].isHashRight ? "" : "x"), QCryptographicHash::Md5);
            line +=
                '|' + QString::fromLatin1(hash.toBase64()) + '|' + QString::number(files[i].offset);
        }
        lines.append(line);
    }
    return lines.join('\n');
}

void check(const File& file, const DownloadDecoder::Item& item) {
    using Kind = DownloadDecoder::Kind;
    REQUIRE(item.failure.empty());
    REQUIRE(item.isResumed == file.isResumed());
    const std::string expected = file.bytes.substr(file.isResumed() ? file.offset : 0);
    REQUIRE(item.bytes == expected);
    if (file.bytes.empty()) {
        REQUIRE(item.kind == Kind::EmptyFile);
    } else {
        REQUIRE(item.kind == (expected.empty() ? Kind::NothingLeft : Kind::File));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const UnitRoots roots;
    DebugText::setSink([](const char*, std::size_t) {});
    DownloadDecoder hostile;
    hostile.add({reinterpret_cast<const char*>(data), size});
    FuzzInput input(data, size);
    const std::vector<File> files = takeFiles(input);
    const DownloadDecoder decoder = DownloadRun::decoded(
        requestOf(files), [&input](LZFDownloadRemoteJob& job, FakeClock& clock) {
            const unsigned choice = input.takeByte() % 16;
            clock.advance(choice == 15 ? 4 : 0);
            job.handleWriteCount(choice == 14 ? input.takeInteger() : 0);
        });
    REQUIRE(decoder.items().size() == files.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        check(files[i], decoder.items()[i]);
    }
    return 0;
}
