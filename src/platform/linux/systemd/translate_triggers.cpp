// Starts by the clock and by the file system: LABEL.timer and LABEL.path.
//
// - When both Day and Weekday are given in one calendar entry, the entry fires
//   when either matches, as cron does; it becomes two OnCalendar= lines.
//   Timers are accurate to one second (AccuracySec=1s) instead of systemd's
//   one minute, since calendar jobs name exact minutes. A key that is not a
//   calendar field (a typo such as "Minutes") refuses the job: ignored, it
//   would widen the entry to every minute.
// - StartInterval is OnActiveSec= plus OnUnitActiveSec=: the first run one
//   interval after submission, then one interval after each start. Any start
//   counts, so beside other ways to start the interval is measured from the
//   latest of them, where the job format keeps it apart.
// - WatchPaths are PathModified= (a write, or the path made or removed).
// - QueueDirectories are DirectoryNotEmpty= starts, and the job is kept alive
//   while a queue directory holds a file: Restart=always under
//   "ConditionDirectoryNotEmpty=|" conditions, which systemd checks at every
//   restart, spaced by ThrottleInterval. A job that leaves its files behind is
//   so run again once per interval, as the job format runs it; the path unit
//   starts the job only when it is not running or waiting to restart, so its
//   trigger limit is never reached and it does not fail. The conditions hold
//   for every start of the job. systemd does not count hidden files as
//   holding the directory.

#include "platform/linux/systemd/translator.h"

namespace tessary::linux_backend {

Status Translator::addTrigger(const std::string& key, const char* kind, const char* description,
                              Section body, std::string& unitName) {
    if (out_.accepts) {
        return refuse(key, kOnlyForConnections);
    }
    std::string lower = kind;
    lower[0] = static_cast<char>(lower[0] - 'A' + 'a');
    unitName = out_.label + "." + lower;
    Section unit;
    unit.add("Description", description + out_.label);
    companions_.push_back({unitName, {{"Unit", unit}, {kind, std::move(body)}}});
    return {};
}

Status Translator::timer() {
    std::vector<std::string> calendar;
    std::vector<std::string> interval;
    if (const plist::Value* cal = job_.find("StartCalendarInterval")) {
        plist::Array entries;
        if (cal->array() != nullptr) {
            entries = *cal->array();
        } else {
            entries.push_back(*cal);
        }
        for (const auto& entry : entries) {
            const plist::Dictionary* dict = entry.dictionary();
            if (dict == nullptr) {
                return refuse("StartCalendarInterval", "must hold calendar dictionaries");
            }
            struct Field {
                const char* key;
                std::int64_t min;
                std::int64_t max;
                std::optional<std::int64_t> value;
            };
            Field fields[] = {{"Minute", 0, 59, {}},
                              {"Hour", 0, 23, {}},
                              {"Day", 1, 31, {}},
                              {"Weekday", 0, 7, {}},
                              {"Month", 1, 12, {}}};
            for (const auto& [key, value] : *dict) {
                Field* field = nullptr;
                for (auto& f : fields) {
                    field = key == f.key ? &f : field;
                }
                const std::string where = "StartCalendarInterval." + key;
                if (field == nullptr) {
                    return refuse(where,
                                  "is not a calendar field (Minute, Hour, Day, Weekday, "
                                  "Month); left out, the entry would fire every minute");
                }
                auto v = integerAt(where, value, field->min, field->max);
                if (!v) {
                    return v.error();
                }
                field->value = v.value();
            }
            auto part = [](const std::optional<std::int64_t>& v, bool twoDigits) {
                if (!v) {
                    return std::string("*");
                }
                char buf[8];
                (void)std::snprintf(buf, sizeof buf, twoDigits ? "%02lld" : "%lld",
                                    static_cast<long long>(*v));
                return std::string(buf);
            };
            const auto& [minute, hour, day, weekday, month] = fields;
            const std::string time =
                part(hour.value, true) + ":" + part(minute.value, true) + ":00";
            static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed",
                                                    "Thu", "Fri", "Sat", "Sun"};
            const std::string monthPart = part(month.value, true);
            if (day.value && weekday.value) {
                // cron's rule: either the day of the month or the weekday.
                calendar.push_back("*-" + monthPart + "-" + part(day.value, true) + " " + time);
                calendar.push_back(std::string(kDays[*weekday.value]) + " *-" + monthPart + "-* " +
                                   time);
            } else {
                const std::string dow =
                    weekday.value ? std::string(kDays[*weekday.value]) + " " : std::string();
                calendar.push_back(dow + "*-" + monthPart + "-" + part(day.value, true) + " " +
                                   time);
            }
        }
    }
    if (const plist::Value* v = job_.find("StartInterval")) {
        auto seconds = integerAt("StartInterval", *v, 1, INT32_MAX);
        if (!seconds) {
            return seconds.error();
        }
        interval.push_back("OnActiveSec=" + std::to_string(seconds.value()));
        interval.push_back("OnUnitActiveSec=" + std::to_string(seconds.value()));
        if (startsOtherwise("StartInterval") || restarts_) {
            approximate("StartInterval",
                        "systemd measures the interval from the job's latest "
                        "start, whatever started it");
        }
    }
    if (calendar.empty() && interval.empty()) {
        return {};
    }
    Section timer;
    timer.add("Unit", out_.serviceUnit);
    timer.add("AccuracySec", "1s");
    for (const auto& c : calendar) {
        timer.add("OnCalendar", c);
    }
    timer.lines.insert(timer.lines.end(), interval.begin(), interval.end());
    return addTrigger(calendar.empty() ? "StartInterval" : "StartCalendarInterval", "Timer",
                      "Start times of ", std::move(timer), out_.timerUnit);
}

Status Translator::watchedPaths() {
    for (const char* key : {"WatchPaths", "QueueDirectories"}) {
        const plist::Value* v = job_.find(key);
        if (v == nullptr) {
            continue;
        }
        auto paths = stringsAt(key, *v);
        if (!paths) {
            return paths.error();
        }
        const bool queue = std::string_view(key) == "QueueDirectories";
        if (queue && restarts_) {
            return refuse(key,
                          "systemd cannot keep a job alive both while its queue holds "
                          "files and by KeepAlive");
        }
        for (const auto& path : paths.value()) {
            const plist::Value text(path);
            auto value = pathValue(key, &text);
            if (!value) {
                return value.error();
            }
            pathTriggers_.push_back((queue ? "DirectoryNotEmpty=" : "PathModified=") +
                                    value.value());
            if (queue) {
                if (Status s = orCondition(key, "ConditionDirectoryNotEmpty=|" + value.value());
                    !s) {
                    return s;
                }
            }
        }
        if (queue && !paths.value().empty()) {
            service_.add("Restart", "always");
            service_.add("RestartSec", std::to_string(throttleSeconds_));
            if (startsOtherwise(key)) {
                approximate(key,
                            "the job starts only while a queue directory holds a file, "
                            "whatever starts it");
            }
        }
    }
    if (pathTriggers_.empty()) {
        return {};
    }
    Section path;
    path.add("Unit", out_.serviceUnit);
    path.lines.insert(path.lines.end(), pathTriggers_.begin(), pathTriggers_.end());
    return addTrigger("WatchPaths", "Path", "Watched paths of ", std::move(path), out_.pathUnit);
}

}  // namespace tessary::linux_backend
