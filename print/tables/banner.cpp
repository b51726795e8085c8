// smsqm_print: the banner above every table.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "print/cells.h"

int titleToggle;
int forecolors[7] = {30, 31, 32, 33, 34, 35, 36};

namespace halvo {

namespace {

constexpr double kVersion = 1.02;
constexpr char kRightsNotice[] = "";
constexpr int kColours = 7;
constexpr int kToggleLimit = 30000;
constexpr int kDay = 86400, kMinute = 60;

void print_rule() {
    static constexpr char kEquals[] =
        "================================================================"
        "===========================================================================";
    static_assert(sizeof kEquals == 139 + 1);
    std::puts(kEquals);
}

// When the snapshot was taken; 0 or less when there is none.
int32_t snapshot_time() {
    return snapshot ? load(static_cast<const halvo_segment *>(snapshot)->now) : 0;
}

// Days since the monitor's start, which is now on the first banner of a fresh segment.
int uptime_days(int32_t now) {
    halvo_segment *segment = attached_segment();
    if (!segment) return 0;
    const int32_t began = load(segment->uptime);
    if (began != 0) return age(now, began) / kDay;
    if (halvo_segment *writable = writable_segment()) store(writable->uptime, now);
    return 0;
}

void print_stars(bool colours) {
    const char *host = std::getenv("HALVO_HOST_TYPE");
    if (!host || std::strcmp(host, "REAL") != 0) {
        std::printf("☆ ");
        return;
    }
    const int first = titleToggle % kColours, second = (first + 1) % kColours;
    const bool odd = titleToggle % 2 != 0;
    if (colours) print_attribute(forecolors[first]);
    std::printf(odd ? "☆" : "★");
    if (colours) print_attribute(forecolors[second]);
    std::printf(odd ? "★" : "☆");
}

struct DateText {
    char text[96];
};
DateText date_text(int32_t now) {
    const time_t seconds = now;
    tm local{};
    localtime_r(&seconds, &local);
    DateText date{};
    std::snprintf(date.text, sizeof date.text, "현재:%d.%02d.%02d %02d:%02d:%02d",
                  local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                  local.tm_min, local.tm_sec);
    return date;
}

void print_title_since(int32_t now, int days, bool colours) {
    print_stars(colours);
    if (colours) {
        print_attribute(0);
        print_attributes(qoptTitle);
    }
    std::printf("   HALVO Queue Monitor Release%4.2f Uptime: %ddays  %s%s  경과 %d분.", kVersion,
                days, kRightsNotice, date_text(now).text, age(now, snapshot_time()) / kMinute);
    if (colours) print_attribute(0);
    std::printf("\n");
}

void print_title(int32_t now, int days, bool colours) {
    // Kept: without a snapshot the attributes of !TITLE are printed in mode 'w' too.
    print_attributes(qoptTitle);
    std::printf("☆    HALVO Queue Monitor Release%4.2f Uptime: %ddays %s%s \n", kVersion, days,
                kRightsNotice, date_text(now).text);
    if (colours) print_attribute(0);
}

} // namespace

} // namespace halvo

using namespace halvo;

void q_printlogo2(char mode) noexcept {
    const CancellationOff whole_call;
    const int32_t now = clock_now();
    const bool colours = mode != 'w';
    if (titleToggle < 0 || titleToggle > kToggleLimit) titleToggle = 0;
    const int days = uptime_days(now);
    print_rule();
    if (snapshot_time() >= 1)
        print_title_since(now, days, colours);
    else
        print_title(now, days, colours);
    print_rule();
    ++titleToggle;
}

void q_printlogo() noexcept { q_printlogo2('f'); }
