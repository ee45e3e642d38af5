#include "tests/core/FakeThumbnails.h"

#include "thumbnails/ThumbnailManager.h"

QList<FakeThumbnails::Started> FakeThumbnails::started;
std::function<pid_t()> FakeThumbnails::child;

void FakeThumbnails::reset() {
    started.clear();
    child = [] { return kNobody; };
}

ThumbnailManager* g_ThumbnailManager = nullptr;

ThumbnailManager::ThumbnailManager(QObject* parent) : QObject(parent) {
    FakeThumbnails::reset();
}

void ThumbnailManager::setJob(const QString& job) {
    _job = job;
}

pid_t ThumbnailManager::appendDay(const QString& date) {
    FakeThumbnails::started.append({_job, date});
    return FakeThumbnails::child();
}
