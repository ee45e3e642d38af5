#include "bus/BusConfig.h"

#include <mosquitto.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kDefaultPort = 1883;
constexpr int kDefaultTlsPort = 8883;

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

int hexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// Resolves %NN, so that a password may hold ":" and "@".
std::string percentDecoded(std::string_view text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? hexDigit(text[i + 2]) : -1;
        if (low < 0) {
            result += text[i];
            continue;
        }
        result += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return result;
}

std::string parseUnixPath(std::string_view path, BusConfig& config) {
    if (!path.starts_with('/')) {
        return "the socket's path must be absolute, as in mqtt+unix:///run/bus.socket";
    }
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
        return "the socket's path is longer than " +
               std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes";
    }
    config.host = path;
    config.port = 0;
    return {};
}

std::string parsePort(std::string_view text, BusConfig& config) {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, config.port);
    if (error != std::errc() || stop != end || config.port < 1 || config.port > 65535) {
        // Not repeated: it may be a password that lacks its host.
        return "the port is not a number from 1 to 65535";
    }
    return {};
}

std::string parseAuthority(std::string_view text, BusConfig& config) {
    if (const size_t at = text.rfind('@'); at != std::string_view::npos) {
        const std::string_view login = text.substr(0, at);
        const size_t colon = login.find(':');
        config.user = percentDecoded(login.substr(0, colon));
        if (colon != std::string_view::npos) {
            config.password = percentDecoded(login.substr(colon + 1));
        }
        text.remove_prefix(at + 1);
    }
    if (text.ends_with('/')) {
        text.remove_suffix(1);
    }
    const bool bracketed = text.starts_with('[');
    const size_t hostEnd = bracketed ? text.find(']') : text.find(':');
    if (bracketed && hostEnd == std::string_view::npos) {
        return "\"[\" without \"]\"";
    }
    config.host = bracketed ? text.substr(1, hostEnd - 1) : text.substr(0, hostEnd);
    if (config.host.empty() || config.host.find_first_of("/?#") != std::string::npos) {
        return "there is no usable host name";
    }
    if (hostEnd == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(bracketed ? hostEnd + 1 : hostEnd);
    if (text.empty()) {
        return {};
    }
    return takePrefix(text, ":") ? parsePort(text, config) : "text behind the host name";
}

std::string parseUrl(std::string_view url, BusConfig& config) {
    if (takePrefix(url, "mqtt+unix://")) {
        config.scheme = BusConfig::Scheme::Unix;
        return parseUnixPath(url, config);
    }
    if (takePrefix(url, "mqtt://")) {
        config.scheme = BusConfig::Scheme::Tcp;
        config.port = kDefaultPort;
        return parseAuthority(url, config);
    }
    if (takePrefix(url, "mqtts://")) {
        config.scheme = BusConfig::Scheme::Tls;
        config.port = kDefaultTlsPort;
        return parseAuthority(url, config);
    }
    return "unknown scheme; known are mqtt+unix://, mqtt:// and mqtts://";
}

std::string readTlsFile(const char* variable, std::string& path) {
    path = environment(variable);
    if (!path.empty() && access(path.c_str(), R_OK) != 0) {
        return std::string(variable) + ": \"" + path + "\": " + std::strerror(errno);
    }
    return {};
}

std::string readTlsFiles(BusConfig& config) {
    std::string fault = readTlsFile("SCADA_BUS_CAFILE", config.caFile);
    if (fault.empty()) {
        fault = readTlsFile("SCADA_BUS_CERTFILE", config.certificateFile);
    }
    if (fault.empty()) {
        fault = readTlsFile("SCADA_BUS_KEYFILE", config.keyFile);
    }
    if (fault.empty() && config.certificateFile.empty() != config.keyFile.empty()) {
        fault = config.keyFile.empty() ? "SCADA_BUS_KEYFILE: missing beside SCADA_BUS_CERTFILE"
                                       : "SCADA_BUS_CERTFILE: missing beside SCADA_BUS_KEYFILE";
    }
    return fault;
}

}  // namespace

std::string BusConfig::displayUrl() const {
    if (scheme == Scheme::Unix) {
        return "mqtt+unix://" + host;
    }
    const bool bracketed = host.find(':') != std::string::npos;
    return (scheme == Scheme::Tls ? "mqtts://" : "mqtt://") +
           (bracketed ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool BusConfig::fromEnvironment(BusConfig& config, std::string& fault) {
    config = BusConfig();
    config.prefix = environment("SCADA_BUS_PREFIX");
    if (config.prefix.find_first_of("+#") != std::string::npos) {
        fault = "SCADA_BUS_PREFIX: \"" + config.prefix + "\" holds \"+\" or \"#\"";
        return false;
    }
    if (mosquitto_validate_utf8(config.prefix.data(), int(config.prefix.size())) !=
        MOSQ_ERR_SUCCESS) {
        fault = "SCADA_BUS_PREFIX: too long for a topic, or not UTF-8 without control characters";
        return false;
    }
    if (const std::string url = environment("SCADA_BUS_URL"); !url.empty()) {
        if (const std::string reason = parseUrl(url, config); !reason.empty()) {
            fault = "SCADA_BUS_URL: " + reason;
            return false;
        }
    }
    if (config.scheme == Scheme::Tls) {
        fault = readTlsFiles(config);
        return fault.empty();
    }
    return true;
}
