#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Events/DCIEvent.h"

#include <gtest/gtest.h>

TEST(DCIEvent, CommonTypeIsTheTypeOnlyInTheCommonCategory) {
    const auto ready = DCIEvent::commonEventWithType(DCIEventTypeFileManagerReady);
    const auto hosts = DCIEvent::initWithCategory(3, DCIEventTypeFileManagerReady);
    EXPECT_EQ(ready->commonType(), DCIEventTypeFileManagerReady);
    EXPECT_TRUE(ready->isCommonEventOfType(DCIEventTypeFileManagerReady));
    EXPECT_FALSE(ready->isCommonEventOfType(DCIEventTypeFileManagerStopped));
    EXPECT_EQ(hosts->type(), DCIEventTypeFileManagerReady);
    EXPECT_EQ(hosts->commonType(), 0u);
    EXPECT_FALSE(hosts->isCommonEventOfType(DCIEventTypeFileManagerReady));
}

TEST(DCIEvent, OnlyTheDesignatedInitialiserStampsTheEvent) {
    const auto before = DCIDate::now();
    const auto stamped = DCIEvent::initWithCategory(1, 2);
    ASSERT_TRUE(stamped->timestamp().has_value());
    EXPECT_GE(*stamped->timestamp(), before);
    EXPECT_LE(*stamped->timestamp(), DCIDate::now());
    EXPECT_FALSE(DCIEvent::init()->timestamp().has_value());
}

TEST(DCIEvent, ContextIsFoundByTheLiteralTextOfAKey) {
    const auto event = DCIEvent::commonEventWithType(DCIEventTypeActionStatusChanged);
    EXPECT_FALSE(event->contextValue(kDCIActionStatusKey).has_value());
    event->setContext(DCIDictionary{{std::string(kDCIActionStatusKey), int64_t{6}}, {"hostKey", "kept"}});
    EXPECT_EQ(event->contextValue("DCIActionStatus")->int64Value(), 6);
    EXPECT_EQ(*event->contextValue("hostKey")->string(), "kept");
    EXPECT_FALSE(event->contextValue("DCIActionStatusX").has_value());
}
