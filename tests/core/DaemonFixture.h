#pragma once

#include "bus/ForkedChild.h"
#include "core/Delivery.h"
#include "core/Dispatch.h"
#include "core/RunState.h"
#include "core/ThumbnailSchedule.h"
#include "core/shared/ChildPool.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/Replies.h"
#include "filesystem/Filesystem.h"
#include "history/HistoricalDataManager.h"
#include "jobs/RemoteJobManager.h"
#include "tests/core/FakeThumbnails.h"
#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "thumbnails/ThumbnailManager.h"

#include <gtest/gtest.h>

#include <QtEndian>

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>

/// A daemon as it stands after its start, over a fake bus and a clock moved by hand, without its
/// main loop. Also a daemon's clients: `request` sends one.
class DaemonFixture : public testing::Test {
protected:
    DaemonFixture() {
        for (const char* token : {"Message.ExtProc.to.1", "Message.storage", "StorageManager.to",
                                  "ThumbnailManager.dayFinished"}) {
            bus.bus().addWantedToken(token);
        }
        g_StorageMessageTokenID = bus.bus().findToken(QByteArrayView("Message.storage"));
        std::strcpy(g_szOurPubSubToken, "Message.ExtProc.from.1");
        g_ThumbnailManager = new ThumbnailManager(nullptr);
        g_pFilesystem = new Filesystem(nullptr);
        g_pHistoricalDataManager = new HistoricalDataManager(nullptr);
        g_remoteManager = new RemoteJobManager();
        setDrainHooks({processMessage, [] { return g_remoteManager->lastActivity(); }});
        g_lastJobActivity = 0;
        g_quit = false;
        g_runState = {};
        g_runState.noteKeepalive();
        bus.transport().sent.clear();
        log.clear();
    }

    ~DaemonFixture() override {
        setDrainHooks({});
        dropWaitingMessages();
        delete g_remoteManager;
        g_remoteManager = nullptr;
        delete g_pHistoricalDataManager;
        g_pHistoricalDataManager = nullptr;
        delete g_pFilesystem;
        g_pFilesystem = nullptr;
        delete g_ThumbnailManager;
        g_ThumbnailManager = nullptr;
        ThumbnailSchedule::forget();
        ChildPools::forget();
        g_quit = false;
    }

    template <typename... Values>
    static QByteArray wire(int command, const char* format, Values... values) {
        Message message;
        message.construct(command, format, values...);
        return {message.buffer(), message.length()};
    }

    static QByteArray framed(int connection, const QByteArray& message) {
        QByteArray frame(4, '\0');
        qToLittleEndian<qint32>(connection, frame.data());
        return frame + message;
    }

    /// Delivers to the callback, without a drain.
    void receive(const QByteArray& token, const QByteArray& payload) {
        bus.transport().deliver(token, payload);
        bus.bus().takeInArrived();
    }

    /// What a forked child returned: `what` runs there, and its result is the exit status.
    static int inChild(const std::function<int()>& what) {
        const pid_t child = ForkedChild::start();
        if (child == 0) {
            _exit(what());
        }
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    FakeClock clock;
    LogCapture log;
    FakeBus bus{PubSubInterfaceCallback};
};
