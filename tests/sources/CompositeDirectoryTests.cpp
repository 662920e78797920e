#include "sources/CompositeDirectory.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

// A source that only carries its title, so the test can tell which member connected it.
class StubSource final : public FrameSource {
public:
    explicit StubSource(std::string title) : _title(std::move(title)) {}
    std::string title() const override { return _title; }
    bool flipped() const override { return false; }
    int64_t kind() const override { return SourceKindPattern; }
    double framesPerSecond() const override { return 0; }
    SourceOutput& output() override { return _output; }
    bool hasSound() const override { return false; }
    bool isAlive() const override { return true; }
    void stop() override {}

private:
    std::string _title;
    SourceOutput _output;
};

// A member whose list the test sets; it counts connection attempts and fails them when told to.
class StubDirectory final : public SourceDirectory {
public:
    StubDirectory(std::string name, std::vector<std::string> titles)
        : name(std::move(name)), titles(std::move(titles)) {}

    std::vector<SourceDescription> availableSources() override {
        std::vector<SourceDescription> sources;
        for (const auto& title : titles)
            sources.emplace_back(title, name, SourceKindPattern);
        return sources;
    }
    std::shared_ptr<FrameSource> connectToSourceWithTitle(const std::string& title,
                                                          const std::shared_ptr<PictureEngine>&) override {
        ++connects;
        return failing ? nullptr : std::make_shared<StubSource>(name + ":" + title);
    }
    ChangeNotifier& changes() override { return notifier; }

    std::string name;
    std::vector<std::string> titles;
    bool failing = false;
    int connects = 0;
    ChangeNotifier notifier;
};

// A title offered twice is listed twice and connected by the first member that can. A member's
// notification reaches whatever handler the union has now, and nothing once the union is gone.
TEST(CompositeDirectoryTest, ListsEveryMemberConnectsByPrecedenceAndPassesOnTheMembersNotifications) {
    auto first = std::make_shared<StubDirectory>("first", std::vector<std::string>{"A"});
    auto second = std::make_shared<StubDirectory>("second", std::vector<std::string>{"B", "A"});
    auto directory =
        std::make_shared<CompositeDirectory>(std::vector<std::shared_ptr<SourceDirectory>>{first, second});

    auto sources = directory->availableSources();
    ASSERT_EQ(sources.size(), 3u);
    EXPECT_EQ(sources[0].title() + sources[0].detail(), "Afirst");
    EXPECT_EQ(sources[1].title(), "B");
    EXPECT_EQ(sources[2].title() + sources[2].detail(), "Asecond");

    auto source = directory->connectToSourceWithTitle("A", nullptr);
    ASSERT_TRUE(source);
    EXPECT_EQ(source->title(), "first:A");

    first->failing = true;
    source = directory->connectToSourceWithTitle("A", nullptr);
    ASSERT_TRUE(source);
    EXPECT_EQ(source->title(), "second:A");
    EXPECT_EQ(first->connects, 2);

    // A title that no member lists, whole and in its case, asks no member to connect; the second member was
    // asked once in all.
    EXPECT_EQ(directory->connectToSourceWithTitle("a", nullptr), nullptr);
    EXPECT_EQ(directory->connectToSourceWithTitle("C", nullptr), nullptr);
    EXPECT_EQ(first->connects + second->connects, 3);

    int early = 0, late = 0;
    directory->changes().setHandler([&] { ++early; });
    directory->changes().setHandler([&] { ++late; });
    second->notifier.notify();
    first->notifier.notify();
    EXPECT_EQ(early, 0);
    EXPECT_EQ(late, 2);

    directory.reset();
    first->notifier.notify();
    EXPECT_EQ(late, 2);
}

} // namespace
} // namespace quorva
