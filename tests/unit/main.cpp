// The unit tests' entry: the platform runs as the virtual router runs it, the
// stand-in services attached to the store and the bus before any test.
#include <gtest/gtest.h>
#include <signal.h>

#include "simulator/standins/standin.h"

int main(int argc, char** argv) {
    standin::install();
    // A client of the adapter's tests may write to a connection the adapter
    // has just closed: an error to look at, not a signal that ends the run.
    signal(SIGPIPE, SIG_IGN);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
