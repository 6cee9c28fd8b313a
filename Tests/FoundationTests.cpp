#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "VelmorData.h"
#include "VelmorFailure.h"
#include "VelmorHostClock.h"
#include "VelmorValue.h"

namespace {

struct CapturedLines {
    std::vector<std::string> lines;
    CapturedLines()
    {
        VelmorSetLineSink([this](const std::string& line) { lines.push_back(line); });
    }
    ~CapturedLines() { VelmorSetLineSink(nullptr); }
};

class Thing : public VelmorRootObject {
public:
    static std::shared_ptr<Thing> make() { return std::shared_ptr<Thing>(new Thing); }
    const char* className() const override { return "Thing"; }
    std::string description() const override { return "a thing"; }
};

} // namespace

TEST(DataTest, NullAndEmptyStayApart)
{
    VelmorData null;
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.length(), 0u);
    EXPECT_FALSE(VelmorData::empty().isNull());
    EXPECT_FALSE(null == VelmorData::empty());
    EXPECT_TRUE(VelmorData() == VelmorData());
    EXPECT_EQ(null.description(), "(null)");
    EXPECT_EQ(VelmorData::empty().description(), "<>");
    EXPECT_EQ(VelmorData({0x90, 0x3c, 0x40}).description(), "<90 3c 40>");
    // Appending to null counts the receiver as empty and yields a real buffer.
    EXPECT_EQ(null.byAppending(VelmorData({1})), VelmorData({1}));
}

TEST(DataTest, AppendingNeverChangesAnotherView)
{
    const VelmorData base({1, 2, 3});
    const VelmorData longer = base.byAppending(VelmorData({4, 5}));
    // base is no longer the longest view: a second append from it must not overwrite 4 5.
    const VelmorData other = base.byAppending(VelmorData({9}));
    EXPECT_EQ(base, VelmorData({1, 2, 3}));
    EXPECT_EQ(longer, VelmorData({1, 2, 3, 4, 5}));
    EXPECT_EQ(other, VelmorData({1, 2, 3, 9}));

    VelmorData run = VelmorData::empty();
    std::vector<std::uint8_t> expected;
    for (int i = 0; i < 5000; ++i) {
        const std::uint8_t byte = static_cast<std::uint8_t>(i);
        run = run.byAppending(&byte, 1);
        expected.push_back(byte);
    }
    EXPECT_EQ(run.toVector(), expected);
    EXPECT_EQ(run.subdata(10, 3), VelmorData({10, 11, 12}));
}

TEST(DataTest, AppendsFromSeveralThreadsOnSharedStorage)
{
    const VelmorData base = VelmorData::empty().byAppending(VelmorData({7, 7}));
    std::vector<std::thread> threads;
    std::vector<VelmorData> results(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            VelmorData mine = base;
            for (int i = 0; i < 200; ++i) {
                const std::uint8_t byte = static_cast<std::uint8_t>(t);
                mine = mine.byAppending(&byte, 1);
            }
            results[t] = mine;
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (int t = 0; t < 4; ++t) {
        ASSERT_EQ(results[t].length(), 202u);
        EXPECT_EQ(results[t][0], 7);
        for (std::size_t i = 2; i < results[t].length(); ++i)
            ASSERT_EQ(results[t][i], t);
    }
}

TEST(ValueTest, TypeTestsAndAccessors)
{
    const VelmorValue text("abc");
    const VelmorValue negative(std::int64_t {-5});
    const VelmorValue big(std::uint64_t {1} << 63);
    EXPECT_TRUE(text.isString());
    EXPECT_FALSE(text.isNumber());
    EXPECT_EQ(text.int64Value(), std::nullopt);
    EXPECT_TRUE(negative.isSignedNumber());
    EXPECT_EQ(negative.int64Value(), -5);
    EXPECT_EQ(negative.stringValue(), std::nullopt);
    EXPECT_TRUE(big.isUnsignedNumber());
    EXPECT_EQ(big.unsignedValue(), std::uint64_t {1} << 63);
    EXPECT_FALSE(VelmorValue(std::int64_t {1}) == VelmorValue(std::uint64_t {1}));

    auto thing = Thing::make();
    const VelmorValue object(thing);
    EXPECT_TRUE(object.isObject());
    EXPECT_EQ(object.objectAs<Thing>(), thing);
    EXPECT_EQ(object.description(), "a thing");
}

TEST(ValueTest, DictionaryTextFormIsSortedAndNested)
{
    VelmorDictionary inner {{"n", VelmorValue(std::uint64_t {7})}};
    VelmorDictionary outer {{"b", VelmorValue("x")}, {"a", VelmorValue(inner)}};
    outer.setObjectForKey(VelmorValue(VelmorArray {VelmorValue("p"), VelmorValue(std::int64_t {-1})}), "c");
    EXPECT_EQ(outer.count(), 3u);
    ASSERT_NE(outer.objectForKey("a"), nullptr);
    EXPECT_EQ(outer.objectForKey("a")->dictionaryValue()->objectForKey("n")->unsignedValue(), 7u);
    EXPECT_EQ(outer.objectForKey("missing"), nullptr);
    const std::string text = outer.description();
    EXPECT_LT(text.find("a ="), text.find("b ="));
    EXPECT_LT(text.find("b ="), text.find("c ="));
    EXPECT_NE(text.find("\"x\""), std::string::npos);
    EXPECT_NE(text.find("-1"), std::string::npos);
    outer.removeObjectForKey("b");
    EXPECT_FALSE(outer.containsKey("b"));
    VelmorDictionary copy = outer;
    EXPECT_TRUE(copy == outer);
}

TEST(FailureLineTest, FormatsOfBothKinds)
{
    CapturedLines captured;
    VELMOR_FAILED("client != nil");
    const int failedLine = __LINE__ - 1;
    VELMOR_FAILED_WITH("noErr == status", -50);
    ASSERT_EQ(captured.lines.size(), 2u);
    // "YYYY-MM-DD HH:MM:SS.mmm [FoundationTests.cpp:LINE] message\n"
    const auto parse = [](const std::string& line) {
        EXPECT_GE(line.size(), 24u);
        for (std::size_t i : {4u, 7u})
            EXPECT_EQ(line[i], '-') << line;
        EXPECT_EQ(line[10], ' ') << line;
        EXPECT_EQ(line[19], '.') << line;
        EXPECT_EQ(line.substr(23, 2), " [") << line;
        EXPECT_EQ(line.back(), '\n');
        const auto close = line.find("] ");
        return std::pair(line.substr(25, close - 25), line.substr(close + 2, line.size() - close - 3));
    };
    const auto [where, message] = parse(captured.lines[0]);
    EXPECT_EQ(where, "FoundationTests.cpp:" + std::to_string(failedLine));
    EXPECT_EQ(message, "client != nil failed");
    EXPECT_EQ(parse(captured.lines[1]).second, "noErr == status failed with -50");
}

TEST(FailureLineTest, DefaultGoesToStandardError)
{
    testing::internal::CaptureStderr();
    VELMOR_LINE("Created MIDI Source: a ( b / c )");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("] Created MIDI Source: a ( b / c )\n"), std::string::npos);
}

TEST(HostClockTest, MonotonicAndConversionsInvert)
{
    const std::uint64_t a = AudioGetCurrentHostTime();
    const std::uint64_t b = AudioGetCurrentHostTime();
    EXPECT_LE(a, b);
    EXPECT_EQ(AudioConvertHostTimeToNanos(24'000'000), 1'000'000'000u);
    for (std::uint64_t t : {std::uint64_t {0}, std::uint64_t {1}, std::uint64_t {2}, std::uint64_t {3},
                            std::uint64_t {123457}, a, std::uint64_t {1} << 50})
        EXPECT_EQ(AudioConvertNanosToHostTime(AudioConvertHostTimeToNanos(t)), t) << t;
    // 10 ms later is 240,000 ticks later.
    EXPECT_EQ(AudioConvertNanosToHostTime(AudioConvertHostTimeToNanos(a) + 10'000'000) - a, 240'000u);
}
