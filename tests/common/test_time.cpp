#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "zv-time.h"

// Time zones as POSIX TZ texts, which need no zone database; every test sets the one it needs.
static void SetTimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

static constexpr long long kAug15At140509Utc = 1376575509LL * 1000000;

// Accepts the text of the second before or after the call.
static void ExpectNowAs(const char* (*get)(), const char* layout) {
    char before[64], after[64];
    time_t t = time(nullptr);
    strftime(before, sizeof(before), layout, localtime(&t));
    std::string text = get();
    t = time(nullptr);
    strftime(after, sizeof(after), layout, localtime(&t));
    EXPECT_THAT(text, ::testing::AnyOf(std::string(before), std::string(after)));
}

TEST(ZvTime, LocalTimesFollowTheTimeZone) {
    SetTimeZone("UTC-2"); // two hours east of UTC, no daylight saving
    EXPECT_EQ(ZvTime::UsSinceEpoch(2013, 8, 15, 16, 5, 9, 7), kAug15At140509Utc + 7);
    EXPECT_EQ(ZvTime::UsSinceMidnight(kAug15At140509Utc + 7),
              (16 * 3600 + 5 * 60 + 9) * 1000000LL + 7);
    EXPECT_EQ(ZvTimeData().m_localOffsetUs, 7200LL * 1000000);
    SetTimeZone("EST5");
    EXPECT_EQ(ZvTimeData().m_localOffsetUs, -5 * 3600LL * 1000000);

    SetTimeZone("UTC-3"); // the texts name the current local time
    ExpectNowAs(ZvTime::GetReverseTimeString, "%y-%m-%d_%H-%M-%S");
    ExpectNowAs(ZvTime::GetReverseTimeStringText, "%d/%m/%Y %H:%M:%S");
}
