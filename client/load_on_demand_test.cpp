#include "client/load_on_demand.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(LoadOnDemand, PlaceholderUntilFakeServer) { SUCCEED(); }

}  // namespace
