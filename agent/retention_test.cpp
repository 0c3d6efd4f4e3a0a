#include "agent/retention.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

long long at(const char* text) {
  struct tm parts = {};
  EXPECT_NE(nullptr, ::strptime(text, "%Y-%m-%d %H:%M:%S", &parts)) << text;
  return ::timegm(&parts);
}

/// Sets named by their times, in the order given.
std::vector<Retention_Set> sets_of(const std::vector<const char*>& times) {
  std::vector<Retention_Set> sets;
  for (const char* time : times) {
    Retention_Set set;
    set.uuid = time;
    set.time = at(time);
    sets.push_back(set);
  }
  return sets;
}

std::vector<std::string> kept(const Retention_Rules& rules, const std::vector<const char*>& times) {
  std::vector<Retention_Set> sets = sets_of(times);
  apply_retention(rules, sets);
  std::vector<std::string> names;
  for (const Retention_Set& set : sets)
    if (!set.reasons.empty())
      names.push_back(set.uuid);
  return names;
}

typedef std::vector<std::string> Names;

TEST(retention, without_rules_everything_stays) {
  EXPECT_EQ(Names({"2024-01-01 00:00:00", "2025-01-01 00:00:00"}),
            kept(Retention_Rules(), {"2024-01-01 00:00:00", "2025-01-01 00:00:00"}));
}

TEST(retention, no_sets_are_no_harm) {
  Retention_Rules rules;
  rules.last = 3;
  rules.within = 5;
  std::vector<Retention_Set> none;
  apply_retention(rules, none);
  EXPECT_TRUE(none.empty());
}

TEST(retention, last_keeps_the_newest_whatever_order_they_come_in) {
  Retention_Rules rules;
  rules.last = 2;
  EXPECT_EQ(Names({"2024-01-03 00:00:00", "2024-01-02 00:00:00"}),
            kept(rules, {"2024-01-03 00:00:00", "2024-01-01 00:00:00", "2024-01-02 00:00:00"}));
  rules.last = 9;
  EXPECT_EQ(1u, kept(rules, {"2024-01-03 00:00:00"}).size());
}

TEST(retention, of_one_second_the_later_in_the_list_is_newer) {
  Retention_Rules rules;
  rules.last = 1;
  std::vector<Retention_Set> sets = sets_of({"2024-01-01 00:00:00", "2024-01-01 00:00:00"});
  apply_retention(rules, sets);
  EXPECT_TRUE(sets[0].reasons.empty());
  EXPECT_EQ(Names({"last"}), sets[1].reasons);
}

TEST(retention, hourly_keeps_the_newest_of_each_hour) {
  Retention_Rules rules;
  rules.hourly = 2;
  EXPECT_EQ(Names({"2024-01-01 10:59:59", "2024-01-01 11:30:00"}),
            kept(rules, {"2024-01-01 09:00:00", "2024-01-01 10:00:00", "2024-01-01 10:59:59", "2024-01-01 11:00:00",
                         "2024-01-01 11:30:00"}));
}

TEST(retention, periods_without_a_set_do_not_count) {
  Retention_Rules rules;
  rules.daily = 2;
  EXPECT_EQ(Names({"2024-01-01 23:59:59", "2024-03-01 00:00:00"}),
            kept(rules, {"2024-01-01 00:00:00", "2024-01-01 23:59:59", "2024-03-01 00:00:00"}));
}

TEST(retention, weeks_begin_on_monday) {
  Retention_Rules rules;
  rules.weekly = 2;
  // 2024-01-07 was a Sunday.
  EXPECT_EQ(Names({"2024-01-07 23:59:59", "2024-01-09 00:00:00"}),
            kept(rules, {"2024-01-06 00:00:00", "2024-01-07 23:59:59", "2024-01-08 00:00:00", "2024-01-09 00:00:00"}));
}

TEST(retention, months_and_years_are_those_of_the_calendar) {
  Retention_Rules months;
  months.monthly = 2;
  EXPECT_EQ(Names({"2024-01-31 00:00:00", "2024-02-29 12:00:00"}),
            kept(months, {"2023-02-28 00:00:00", "2024-01-01 00:00:00", "2024-01-31 00:00:00", "2024-02-29 12:00:00"}));
  Retention_Rules years;
  years.yearly = 2;
  EXPECT_EQ(Names({"2023-12-31 23:59:59", "2024-12-31 00:00:00"}),
            kept(years, {"2022-12-31 00:00:00", "2023-01-01 00:00:00", "2023-12-31 23:59:59", "2024-01-01 00:00:00",
                         "2024-12-31 00:00:00"}));
}

TEST(retention, the_same_month_of_another_year_is_another_month) {
  Retention_Rules rules;
  rules.monthly = 2;
  EXPECT_EQ(2u, kept(rules, {"2023-05-01 00:00:00", "2024-05-01 00:00:00"}).size());
}

TEST(retention, times_before_the_epoch_have_days_of_their_own) {
  Retention_Rules rules;
  rules.daily = 2;
  EXPECT_EQ(2u, kept(rules, {"1969-12-31 23:00:00", "1970-01-01 01:00:00"}).size());
}

TEST(retention, within_counts_from_the_newest_set) {
  Retention_Rules rules;
  rules.within = 24 * 3600;
  EXPECT_EQ(Names({"2001-01-01 12:00:00", "2001-01-02 12:00:00"}),
            kept(rules, {"2001-01-01 11:59:59", "2001-01-01 12:00:00", "2001-01-02 12:00:00"}));
}

TEST(retention, rules_add_up_and_each_is_named) {
  Retention_Rules rules;
  rules.last = 1;
  rules.daily = 2;
  rules.yearly = 1;
  std::vector<Retention_Set> sets = sets_of({"2024-01-01 00:00:00", "2024-01-02 00:00:00", "2024-01-03 00:00:00"});
  apply_retention(rules, sets);
  EXPECT_EQ(Names(), sets[0].reasons);
  EXPECT_EQ(Names({"daily"}), sets[1].reasons);
  EXPECT_EQ(Names({"last", "daily", "yearly"}), sets[2].reasons);
}

TEST(retention, the_newest_set_stays_under_every_single_rule) {
  const std::vector<const char*> times = {"2024-01-01 00:00:00", "2024-01-01 00:00:01"};
  for (unsigned Retention_Rules::*rule :
       {&Retention_Rules::last, &Retention_Rules::hourly, &Retention_Rules::daily, &Retention_Rules::weekly,
        &Retention_Rules::monthly, &Retention_Rules::yearly}) {
    Retention_Rules rules;
    rules.*rule = 1;
    EXPECT_EQ(Names({"2024-01-01 00:00:01"}), kept(rules, times));
  }
}

typedef std::vector<std::optional<unsigned long long>> Missing;

/// The reasons of sets of one day each, oldest first, by what they miss; joined by commas.
std::vector<std::string> reasons(const Retention_Rules& rules, const Missing& missing) {
  std::vector<Retention_Set> sets;
  for (const auto& count : missing) {
    Retention_Set& set = sets.emplace_back();
    set.time = static_cast<long long>(sets.size()) * 86400;
    set.missing = count;
  }
  apply_retention(rules, sets);
  std::vector<std::string> all;
  for (const Retention_Set& set : sets) {
    std::string& text = all.emplace_back();
    for (const std::string& reason : set.reasons)
      text += (text.empty() ? "" : ",") + reason;
  }
  return all;
}

const char* const NEWER = "not whole but newer than any that is";
const char* const NONE_WHOLE = "not whole and no set is";
constexpr auto UNKNOWN = std::nullopt;

TEST(retention, only_whole_sets_count) {
  Retention_Rules rules;
  rules.last = 1;
  EXPECT_EQ(Names({"", "last", NEWER, NEWER}), reasons(rules, {0, 0, 5, 1}));
  rules.last = 2;
  EXPECT_EQ(Names({"last", "", "last", NEWER}), reasons(rules, {0, 7, 0, 5}));
  for (unsigned Retention_Rules::*rule : {&Retention_Rules::hourly, &Retention_Rules::daily, &Retention_Rules::weekly,
                                          &Retention_Rules::monthly, &Retention_Rules::yearly}) {
    Retention_Rules period;
    period.*rule = 1;
    const Names found = reasons(period, {0, 5});
    EXPECT_NE("", found[0]);
    EXPECT_EQ(NEWER, found[1]);
  }
}

TEST(retention, without_a_whole_set_the_others_stay) {
  Retention_Rules rules;
  rules.last = 1;
  EXPECT_EQ(Names({NONE_WHOLE, NONE_WHOLE, NONE_WHOLE}), reasons(rules, {1, 2, 3}));
}

TEST(retention, within_keeps_what_is_not_whole_and_is_counted_from_a_whole_set) {
  Retention_Rules rules;
  rules.within = 86400;
  EXPECT_EQ(Names({"", "within", "within", std::string("within,") + NEWER, std::string("within,") + NEWER}),
            reasons(rules, {0, 4, 0, 1, 1}));
}

TEST(retention, what_may_be_whole_counts_but_pushes_no_whole_set_out) {
  Retention_Rules rules;
  rules.last = 1;
  EXPECT_EQ(Names({"", "newest whole set", "", "last"}), reasons(rules, {0, 0, UNKNOWN, UNKNOWN}));
  EXPECT_EQ(Names({"", "newest whole set", NEWER, "last"}), reasons(rules, {0, 0, 3, UNKNOWN}));
  EXPECT_EQ(Names({"", "last"}), reasons(rules, {UNKNOWN, UNKNOWN}));
  EXPECT_EQ(Names({NONE_WHOLE, "last"}), reasons(rules, {2, UNKNOWN}));
}

TEST(retention, incomplete_sets_count_when_that_is_asked_for_but_push_no_whole_set_out) {
  Retention_Rules rules;
  rules.count_incomplete = true;
  EXPECT_EQ(Names({"no rule", "no rule"}), reasons(rules, {0, 5}));
  rules.last = 1;
  EXPECT_EQ(Names({"", "newest whole set", "", "last"}), reasons(rules, {0, 0, 5, 1}));
  EXPECT_EQ(Names({"", "last"}), reasons(rules, {5, 1}));
}

TEST(retention, times_are_read_with_their_units) {
  long long seconds = 0;
  EXPECT_TRUE(parse_retention_time("36h", seconds));
  EXPECT_EQ(36 * 3600, seconds);
  EXPECT_TRUE(parse_retention_time("1y6m", seconds));
  EXPECT_EQ((366LL + 6 * 31) * 86400, seconds);
  EXPECT_TRUE(parse_retention_time("2w1d", seconds));
  EXPECT_EQ(15 * 86400, seconds);
  for (const char* wrong : {"", "5", "d", "0d", "-1d", "1x", "1d5", " 1d", "99999999999999999999y", "99999999999y"}) {
    seconds = 7;
    EXPECT_FALSE(parse_retention_time(wrong, seconds)) << wrong;
    EXPECT_EQ(7, seconds);
  }
}

} // namespace
