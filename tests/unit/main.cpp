// The unit tests' entry: the platform runs as the virtual router runs it, the
// stand-in services attached to the store and the bus before any test.
#include <gtest/gtest.h>

#include "simulator/standins/standin.h"

int main(int argc, char** argv) {
    standin::install();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
