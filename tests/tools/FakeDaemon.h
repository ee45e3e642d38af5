#pragma once

#include "bus/FakeTransport.h"
#include "bus/Message.h"
#include "tests/support/FakeClock.h"

#include <QByteArray>
#include <QList>
#include <QMap>

#include <functional>
#include <vector>

/// A daemon in memory at the other end of a FakeTransport: files by path, served by the file
/// protocol from inside the client's waits. A wait that brings nothing moves the clock instead.
/// What lies outside of the unit's roots is refused.
class FakeDaemon {
public:
    struct File {
        QByteArray contents;
        int modified = 1'700'000'000;
    };
    /// What becomes of a request.
    enum class Fate {
        Answered,
        LostRequest,  ///< neither carried out nor answered
        LostReply,    ///< carried out, and the answer lost
        Bare,         ///< refused
    };

    explicit FakeDaemon(FakeClock& clock) : _clock(clock) {}

    QMap<QByteArray, File> files;
    /// Every request seen, oldest first.
    std::vector<Message> requests;
    /// How often the last client connected.
    int connects = 0;
    /// What was published on other tokens.
    QList<FakeTransport::Sent> otherSent;
    /// Told of each of them, when it is published: other processes of the unit.
    std::function<void(const FakeTransport::Sent& sent)> onOther;
    /// Asked for each request; before it is carried out.
    std::function<Fate(const Message& request)> fate;
    /// Answers what the fake does not know, by `reply`; false refuses it.
    std::function<bool(const Message& request, Message& reply)> onFurther;
    /// Serves downloads: given a request for one, or a report, and the connection. Whether it sent
    /// anything. Without it they are refused.
    std::function<bool(const QByteArray& connection, const Message& message)> onDownload;
    /// May spoil a reply, given with its request.
    std::function<void(const Message& request, Message& reply)> spoil;
    /// Called in each wait that brings nothing, after the clock has moved.
    std::function<void()> onIdle;
    /// The largest length that a listing or an open can report is cut to 32 bits as by the real
    /// one.
    QMap<QByteArray, qint64> pretendedSizes;

    /// Serves the client on this transport from now on; the last one is forgotten.
    void attach(FakeTransport& transport);
    /// Before the transport goes: takes what was sent last.
    void detach();
    FakeTransport& transport() { return *_transport; }
    /// Forgets every handle, as a restart does.
    void restart() { _open.clear(); }
    int count(int command) const;
    /// A reply out of turn, to whoever asked last.
    void reply(const Message& message);

private:
    void serve(int milliseconds);
    bool takeReport(const FakeTransport::Sent& frame);
    bool answer(const Message& request, Message& reply);
    bool answerByHandle(const Message& request, Message& reply);
    bool openFile(const Message& request, Message& reply);
    bool readFile(const Message& request, Message& reply);
    bool writeFile(const Message& request, Message& reply);
    bool moveFile(const Message& request, Message& reply);
    bool openDirectory(const Message& request, Message& reply);
    bool makeListing(const Message& request, Message& reply);
    bool entry(const Message& request, Message& reply);
    qint64 sizeOf(const QByteArray& path) const;

    FakeClock& _clock;
    FakeTransport* _transport = nullptr;
    QByteArray _lastConnection;
    int _nextHandle = 0;
    QMap<int, QByteArray> _open;
    QMap<int, QList<QByteArray>> _listings;
};
