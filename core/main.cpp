#include "core/Lifecycle.h"

int main() {
    Lifecycle lifecycle;
    return lifecycle.run();
}
