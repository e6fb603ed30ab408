#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Events/DCIEvent.h"

#include <gtest/gtest.h>

TEST(DCIEvent, CommonTypeIsTheTypeOnlyInTheCommonCategory) {
    const auto zero = DCIEvent::commonEventWithType(0);
    EXPECT_EQ(zero->category(), DCIEventCategoryCommon);
    EXPECT_EQ(zero->commonType(), 0u);
    EXPECT_TRUE(zero->isCommonEventOfType(0));

    const auto ready = DCIEvent::commonEventWithType(DCIEventTypeFileManagerReady);
    EXPECT_EQ(ready->commonType(), DCIEventTypeFileManagerReady);
    EXPECT_TRUE(ready->isCommonEventOfType(DCIEventTypeFileManagerReady));
    EXPECT_FALSE(ready->isCommonEventOfType(DCIEventTypeFileManagerStopped));

    const auto hosts = DCIEvent::initWithCategory(3, 11);
    EXPECT_EQ(hosts->type(), 11u);
    EXPECT_EQ(hosts->commonType(), 0u);
    EXPECT_FALSE(hosts->isCommonEventOfType(11));

    const auto huge = DCIEvent::commonEventWithType(UINT64_MAX);
    EXPECT_EQ(huge->commonType(), UINT64_MAX);
}

TEST(DCIEvent, OnlyTheDesignatedInitialiserStampsTheEvent) {
    const auto before = DCIDate::now();
    const auto stamped = DCIEvent::initWithCategory(1, 2);
    ASSERT_TRUE(stamped->timestamp().has_value());
    EXPECT_GE(*stamped->timestamp(), before);
    EXPECT_LE(*stamped->timestamp(), DCIDate::now());

    const auto plain = DCIEvent::init();
    EXPECT_EQ(plain->category(), 0u);
    EXPECT_EQ(plain->type(), 0u);
    EXPECT_FALSE(plain->timestamp().has_value());
    EXPECT_EQ(plain->action(), nullptr);
    EXPECT_EQ(plain->context(), nullptr);
}

TEST(DCIEvent, ContextIsFoundByTheLiteralTextOfAKey) {
    const auto event = DCIEvent::commonEventWithType(DCIEventTypeActionStatusChanged);
    EXPECT_FALSE(event->contextValue(kDCIActionStatusKey).has_value());

    event->setContext(DCIDictionary{{std::string(kDCIActionStatusKey), int64_t{6}},
                                    {std::string(kDCIActionPreviousStatusKey), int64_t{3}},
                                    {"hostKey", "kept"}});
    EXPECT_EQ(event->contextValue("DCIActionStatus")->int64Value(), 6);
    EXPECT_EQ(event->contextValue(kDCIActionPreviousStatusKey)->int64Value(), 3);
    EXPECT_EQ(*event->contextValue("hostKey")->string(), "kept");
    EXPECT_FALSE(event->contextValue("DCIActionStatusX").has_value());
}
