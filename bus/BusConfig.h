#pragma once

#include <string>

/// Where the bus is, from the environment:
///   SCADA_BUS_URL      mqtt+unix:///path | mqtt://[user[:password]@]host[:1883] |
///                      mqtts://[user[:password]@]host[:8883]; unset or empty:
///                      mqtt://127.0.0.1:1883
///   SCADA_BUS_PREFIX   text before every token name, so that many units share one broker
///   SCADA_BUS_CAFILE, SCADA_BUS_CERTFILE, SCADA_BUS_KEYFILE
///                      TLS files for mqtts; without them the system's trust store and no
///                      client certificate
struct BusConfig {
    enum class Scheme { Unix, Tcp, Tls };

    Scheme scheme = Scheme::Tcp;
    std::string host = "127.0.0.1";  ///< a path for Scheme::Unix
    int port = 1883;
    std::string user;
    std::string password;
    std::string prefix;
    std::string caFile;
    std::string certificateFile;
    std::string keyFile;

    /// The URL without user and password, for the log.
    std::string displayUrl() const;

    /// Reads the environment. False where a value cannot be used; `fault` names the variable and
    /// says why.
    static bool fromEnvironment(BusConfig& config, std::string& fault);
};
