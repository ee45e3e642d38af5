#include <QCoreApplication>

#include <mosquitto.h>
#include <unistd.h>

/// What a process costs that only loads Qt Core and libmosquitto: the measure of the daemon's
/// memory.
int main() {
    const bool isLoaded = qVersion() && mosquitto_lib_init() == MOSQ_ERR_SUCCESS;
    pause();
    return isLoaded ? 0 : 1;
}
