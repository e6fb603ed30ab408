#include "CoreKestly/Events/DCIEvent.h"

#include <gtest/gtest.h>

TEST(DCIEvent, OnlyTheDesignatedInitialiserStampsTheEvent) {
    const auto before = DCIDate::now();
    const auto stamped = DCIEvent::initWithCategory(1, 2);
    ASSERT_TRUE(stamped->timestamp().has_value());
    EXPECT_GE(*stamped->timestamp(), before);
    EXPECT_LE(*stamped->timestamp(), DCIDate::now());
    EXPECT_FALSE(DCIEvent::init()->timestamp().has_value());
}
