#include "CoreKestly/Actions/DCIAction.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "support/EventRecorder.h"
#include "support/LogReading.h"
#include "support/Testing.h"

using Actions = std::vector<std::shared_ptr<DCIAction>>;

TEST(DCIAction, ClassificationLooksAtTheCategoryAndUpTheAncestryNeverDown) {
    const auto download = DCIAction::initWithCategory(DCIActionCategoryCommon, DCIActionTypeDownload);
    const auto group = DCIAction::initWithCategory(7, DCIActionTypeMoveFile), step = DCIAction::initWithCategory(9, 2);
    group->setParent(download);
    step->setParent(group);
    EXPECT_EQ(std::tuple(download->commonType(), group->commonType()), std::tuple(DCIActionTypeDownload, 0u));
    // Category 7's type 1 is not the common move.
    EXPECT_EQ((std::vector<bool>{download->isCommonActionOfType(DCIActionTypeDownload),
                                 download->isCommonActionOfType(DCIActionTypeMoveFile), group->isOfCategory(7, DCIActionTypeCopyFile),
                                 step->isPartOfCommonActionOfType(DCIActionTypeDownload),
                                 step->isCommonActionOfType(DCIActionTypeDownload), step->isPartOfCategory(7, DCIActionTypeMoveFile),
                                 step->isPartOfCategory(9, 2), group->isCommonActionOfType(DCIActionTypeMoveFile),
                                 step->isPartOfCommonActionOfType(DCIActionTypeMoveFile), download->isPartOfCategory(9, 2)}),
              (std::vector<bool>{true, false, false, true, false, true, true, false, false, false}));
}

TEST(DCIAction, ContextStoresReplacesRemovesAndRefusesNilObjects) {
    const auto action = DCIAction::init(), other = DCIAction::init();
    const LogSince log;
    action->setContextObject("/root/a.wav", kDCIFileManagerMoveFrom);
    action->setContextObject(DCINull(), "nothingYet");
    action->setContextObject(other, "other");
    action->setContextObject("/root/b.wav", kDCIFileManagerMoveFrom);
    action->setContextObject(DCIValue(5), "count");
    action->addContextEntriesFromDictionary({{"count", int64_t{6}}, {std::string(kDCIFileManagerMoveTo), "/c.wav"}});
    action->removeContextObjectForKey("neverThere");
    action->removeContextObjectForKey(std::nullopt);
    const auto value = [&](std::string_view key) { return action->contextObjectForKey(key); };
    EXPECT_EQ(std::tuple(*value("sourcePath")->string(), *value(kDCIFileManagerMoveTo)->string(), value("count")->int64Value()),
              std::tuple("/root/b.wav", "/c.wav", 6));
    EXPECT_TRUE(value("nothingYet")->isNull());
    EXPECT_EQ(value("other")->object<DCIAction>(), other);  // shared, not copied
    action->removeContextObjectForKey("count");
    EXPECT_EQ(std::tuple(value("count"), action->contextObjectForKey(std::nullopt)), std::tuple(std::nullopt, std::nullopt));

    // A missing object of any kind is refused with a log line; a missing key silently.
    action->setContextObject(std::nullopt, kDCIFileManagerMoveFrom);
    action->setContextObject(std::shared_ptr<DCIAction>(), "missingParent");
    action->setContextObject(std::optional<std::string>(), "missingPath");
    action->setContextObject(static_cast<const char*>(nullptr), "missingText");
    action->setContextObject(nullptr, "missingAnything");
    action->setContextObject("orphan", std::nullopt);
    EXPECT_EQ(*value(kDCIFileManagerMoveFrom)->string(), "/root/b.wav");
    for (const char* key : {"sourcePath", "missingParent", "missingPath", "missingText", "missingAnything"}) {
        EXPECT_EQ(action->contextObjectForKey(key).has_value(), key == std::string_view("sourcePath")) << key;
        EXPECT_EQ(log.count(std::string("Not setting nil object for key ") + key), 1u) << key;
    }
    EXPECT_EQ(log.text().find("orphan"), std::string::npos);
    EXPECT_EQ(action->description().find("orphan"), std::string::npos);
}

TEST(DCIAction, ContextIsSafeToShareBetweenThreads) {
    const auto action = DCIAction::init();
    const auto key = [](int writer, int i) { return std::to_string(writer) + "-" + std::to_string(i); };
    whileRepeatedOnThreads(1, [&] {
        const auto value = action->contextObjectForKey("1-7");
        EXPECT_TRUE(!value || value->int64Value() == 7);
        EXPECT_NE(action->description().find("Context: {"), std::string::npos);
    }, [&] {
        startThreads(2, [&](int writer) {
            for (int i = 0; i < 400; ++i) {
                action->setContextObject(DCIValue(int64_t{i}), key(writer, i));
                action->addContextEntriesFromDictionary({{"scratch", key(writer, i)}});
                action->removeContextObjectForKey("scratch");
            }
        });
    });
    for (int writer = 0; writer < 2; ++writer) {
        for (int i = 0; i < 400; ++i) ASSERT_EQ(action->contextObjectForKey(key(writer, i))->int64Value(), i);
    }
    EXPECT_FALSE(action->contextObjectForKey("scratch").has_value());
}

// Every ordered pair of statuses, unknown numbers included, from a worker thread while the main
// thread is blocked in join: a post that waited for the main thread would hang.
TEST(DCIAction, EveryStatusChangeIsAnnouncedOnceAndOnlyAFailureKeepsTheError) {
    const ListeningRecorder recorder;  // gone again at the end, and the bus with it
    const auto action = DCIAction::init();
    const DCIError error = DCIError::posixError(ENOENT, "open /missing");
    const int64_t statuses[] = {0, 1, 2, 3, 4, 5, 6, 7, 9, -1};
    std::vector<StatusChange> expected;
    int64_t current = DCIActionStatusUndefined;
    const auto change = [&](int64_t status) {
        if (status != current) expected.emplace_back(status, current);
        current = status;
        action->changeStatus(status);
        EXPECT_EQ(action->status(), status);
    };
    std::thread([&] {
        for (const int64_t from : statuses) {
            for (const int64_t to : statuses) {
                change(from);
                action->setContextObject(error, kDCIError);
                change(to);
                // Setting the status an action already has is no change, so the error stays.
                const bool kept = action->contextObjectForKey(kDCIError).has_value();
                EXPECT_EQ(kept, from == to || to == DCIActionStatusFailed) << from << " -> " << to;
            }
        }
    }).join();
    ASSERT_TRUE(pumpMainLoopUntil([&] { return recorder->statusChangesOf(action).size() >= expected.size(); }));
    pumpMainLoopBriefly();
    EXPECT_EQ(recorder->statusChangesOf(action), expected);
}

TEST(DCIAction, EachStatusHasItsTextAndOtherNumbersNone) {
    const std::vector<std::pair<int64_t, std::string_view>> table{
        {0, "Undefined"}, {1, "Restarted"}, {2, "Pending"}, {3, "Running"}, {4, "Paused"}, {5, "Canceled"},
        {6, "Failed"},    {7, "Completed"}, {8, ""},        {-1, ""},       {std::numeric_limits<int64_t>::min(), ""}};
    for (const auto& [status, text] : table) EXPECT_EQ(DCIActionStatusText(status), text) << status;
}

TEST(DCIAction, RecursiveStatusChangesAnnounceChildrenBeforeParents) {
    const ListeningRecorder recorder;  // gone again at the end, and the bus with it
    const auto parent = DCIAction::init(), first = DCIAction::init(), second = DCIAction::init();
    const auto grandchild = DCIAction::init();
    first->setParent(parent);
    second->setParent(parent);
    grandchild->setParent(first);

    parent->recursivelyChangeStatus(DCIActionStatusCanceled);
    ASSERT_TRUE(pumpMainLoopUntil([&] { return recorder->events.size() == 4; }));
    pumpMainLoopBriefly();
    ASSERT_EQ(recorder->events.size(), 4u);
    Actions arrival;
    for (const auto& event : recorder->events) arrival.push_back(event->action());
    const auto at = [&](const auto& action) { return std::ranges::find(arrival, action) - arrival.begin(); };
    EXPECT_LT(at(grandchild), at(first));
    EXPECT_EQ(at(parent), 3);
    for (const auto& action : arrival) EXPECT_EQ(action->status(), DCIActionStatusCanceled);
}

TEST(DCIAction, PrioritiesReachEveryDescendantNoAncestorAndSaturateForEachAction) {
    const auto top = DCIAction::init(), parent = DCIAction::init(), child = DCIAction::init();
    parent->setParent(top);
    child->setParent(parent);
    parent->recursivelySetPriority(42);
    EXPECT_EQ(top->priority(), 1u);
    EXPECT_EQ(child->priority(), 42u);

    constexpr uint64_t kTop = std::numeric_limits<uint64_t>::max();
    struct Case { uint64_t parentBefore, childBefore; int64_t change; uint64_t parentAfter, childAfter; };
    const Case cases[] = {
        {3, 10, -5, 0, 5}, {1, 5, 4, 5, 9}, {kTop - 1, 9, 5, kTop, 14},
        {kTop, 14, std::numeric_limits<int64_t>::min(), kTop - (uint64_t{1} << 63), 0},
    };
    for (const auto& c : cases) {
        parent->setPriority(c.parentBefore);
        child->setPriority(c.childBefore);
        parent->recursivelyIncrementPriority(c.change);
        EXPECT_EQ(std::pair(parent->priority(), child->priority()), std::pair(c.parentAfter, c.childAfter)) << c.change;
    }
}

TEST(DCIAction, AChildOwnsItsParentAndAParentOnlyKnowsItsChildren) {
    auto parent = DCIAction::init(), child = DCIAction::init();
    const auto other = DCIAction::init(), grandparent = DCIAction::init();
    other->setParent(grandparent);
    child->setParent(parent);
    child->setParent(parent);
    const std::weak_ptr<DCIAction> parentAlive = parent, childAlive = child;
    parent.reset();
    ASSERT_FALSE(parentAlive.expired());
    EXPECT_EQ(parentAlive.lock()->children(), Actions{child});

    // Moving leaves the old parent's children, which lets it go.
    child->setParent(other);
    EXPECT_EQ(std::tuple(parentAlive.expired(), other->children(), child->root()), std::tuple(true, Actions{child}, grandparent));
    child->setParent(nullptr);
    EXPECT_TRUE(other->children().empty());
    EXPECT_EQ(child->root(), child);

    // A parent goes with its last child; a destroyed child leaves a parent someone else holds.
    auto leaving = DCIAction::init(), staying = DCIAction::init();
    leaving->setParent(child);
    staying->setParent(child);
    leaving.reset();
    EXPECT_EQ(child->children(), Actions{staying});
    child.reset();
    EXPECT_FALSE(childAlive.expired());
    staying.reset();
    EXPECT_TRUE(childAlive.expired());
}

TEST(DCIAction, ChildrenMayGoAwayOnOtherThreadsWhileTheTreeIsWalked) {
    const auto parent = DCIAction::init();
    Actions children(200);
    for (auto& child : children) (child = DCIAction::init())->setParent(parent);
    std::thread dropper([&] { children.clear(); });
    for (uint64_t i = 0; i < 50; ++i) parent->recursivelySetPriority(i);
    dropper.join();
    EXPECT_TRUE(parent->children().empty());
}

TEST(DCIAction, CompareToPutsTheNextToHandOutLast) {
    const auto earlier = DCIAction::init();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a later timestamp, not just a later sequence
    const auto later = DCIAction::init();
    const auto compare = [&] { return std::vector{later->compareTo(*earlier), earlier->compareTo(*later)}; };
    EXPECT_EQ(compare(), (std::vector<int64_t>{1, -1}));
    EXPECT_EQ(earlier->compareTo(*earlier), -1);
    later->setPriority(100000);
    EXPECT_EQ(compare(), (std::vector<int64_t>{-1, 1}));
}
