#pragma once

#include "tests/tools/FakeDownloads.h"
#include "tests/tools/StoragectlFixture.h"

#include <QCryptographicHash>

#include <string>
#include <vector>

/// A file and a tree of the unit, to be fetched over the download job.
class FetchFixture : public StoragectlFixture {
protected:
    static constexpr char kFile[] = "/root/data/a/file";
    static constexpr char kTree[] = "/root/data/a/tree";

    int getFile(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"get", kFile, "-o", local("file").toStdString()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    int getTree(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"get", "-r", kTree, "-o", folder.path().toStdString()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    QByteArray& contents() { return daemon.files[kFile].contents; }
    void addToTree(const QByteArray& name, const QByteArray& bytes) {
        daemon.files[kTree + QByteArray("/") + name] = {bytes};
    }
    static QByteArray claim(const QByteArray& prefix) {
        const QByteArray md5 = QCryptographicHash::hash(prefix, QCryptographicHash::Md5);
        return kFile + QByteArray("|") + md5.toBase64() + '|' + QByteArray::number(prefix.size());
    }

    FakeDownloads downloads{daemon};
};
