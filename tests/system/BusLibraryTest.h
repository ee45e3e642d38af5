#pragma once

#include "bus/PubSubInterface.h"
#include "tests/support/Broker.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RawBusClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// The bus library of this very program on a real broker, with a neighbour on bare libmosquitto.
class BusLibraryTest : public testing::Test {
protected:
    BusLibraryTest();
    ~BusLibraryTest() override;

    /// Starts the broker and connects the neighbour, who listens to the topic "out/#".
    void startBroker();
    /// Joins under the name "library" at `url` (the broker's Unix socket where it is empty).
    void join(const std::string& url = {});
    /// The bus's main loop, until `done` or the time is over. True if done.
    bool waitUntil(const std::function<bool()>& done, int milliseconds);
    bool waitUntilConnected(int milliseconds);
    /// The bus's main loop and the neighbour's by turns.
    bool waitForBoth(const std::function<bool()>& done, int milliseconds);

    /// A delivery both ways: the connection works.
    void expectItExchangesMessages();
    /// The payloads that the neighbour has received, in order.
    std::vector<std::string> neighboursPayloads() const;
    bool send(const std::string& token, const std::string& payload);

    /// A TLS listener's configuration, its certificate (its own authority) made on the way.
    std::string tlsListener(int port);
    /// A self-signed certificate for 127.0.0.1 as `name`.pem and `name`.key in the broker's folder.
    void makeCertificate(const std::string& name);
    std::string file(const std::string& name) const { return _broker.folder() + "/" + name; }
    void shell(const std::string& command) const;

    static double cpuSeconds();
    static int millisecondsSince(std::chrono::steady_clock::time_point start);

    Broker _broker;
    RawBusClient _neighbour{_broker.socketPath()};
    LogCapture _log;
    std::unique_ptr<PubSubInterface> _bus;
    std::vector<std::string> _payloads;

private:
    static void take(void* self, PubSubMessage* message);

    int _exchanges = 0;
};
