#pragma once

#include <algorithm>
#include <array>
#include <string_view>

#include "pelorus/translate/rule_table.h"

namespace pelorus::ctl {

struct RuleName {
  translate::Rule rule;
  std::string_view name;
};

/// What the translator's rules are called.
constexpr std::array<RuleName, translate::RULES.size()> RULE_NAMES{{
    {translate::rules::aggfail, "aggfail"},
    {translate::rules::aggregator, "aggregator"},
    {translate::rules::aggregation_cpu_average, "aggregation_cpu_average"},
    {translate::rules::bridge, "bridge"},
    {translate::rules::conntrack, "conntrack"},
    {translate::rules::cpu, "cpu"},
    {translate::rules::cpufreq, "cpufreq"},
    {translate::rules::df, "df"},
    {translate::rules::disk, "disk"},
    {translate::rules::entropy, "entropy"},
    {translate::rules::filecount_influxdb, "filecount_influxdb"},
    {translate::rules::interface, "interface"},
    {translate::rules::irq, "irq"},
    {translate::rules::load, "load"},
    {translate::rules::link_packet_loss, "link_packet_loss"},
    {translate::rules::memory, "memory"},
    {translate::rules::nginx, "nginx"},
    {translate::rules::ntpd, "ntpd"},
    {translate::rules::postgresql, "postgresql"},
    {translate::rules::process, "process"},
    {translate::rules::processes, "processes"},
    {translate::rules::redis, "redis"},
    {translate::rules::status, "status"},
    {translate::rules::swap, "swap"},
    {translate::rules::tunnel, "tunnel"},
    {translate::rules::uptime, "uptime"},
    {translate::rules::vmem, "vmem"},
}};

#ifndef __SANITIZE_ADDRESS__  // which makes comparing functions no constant expression in g++ 12
constexpr bool is_named(translate::Rule rule) {
  return std::ranges::find(RULE_NAMES, rule, &RuleName::rule) != RULE_NAMES.end();
}
static_assert(std::ranges::all_of(translate::RULES, is_named, &translate::RuleRow::rule));
#endif

}  // namespace pelorus::ctl
