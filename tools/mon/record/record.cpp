#include "tools/mon/record/record.h"

#include <algorithm>

#include "tools/frame/output.h"

namespace halvo::mon {

namespace {

constexpr int kWholeEvery = 60;         // samples
constexpr int64_t kTrackedBefore = 900; // seconds that a jump looks at before, for rates and ages
constexpr int64_t kVersion = 1;

constexpr char kTables[] =
    "PRAGMA auto_vacuum = INCREMENTAL;"
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS samples(time INTEGER PRIMARY KEY, taken REAL, up INTEGER,"
    " fault TEXT, segment INTEGER, bytes INTEGER, started INTEGER, clock INTEGER, whole INTEGER);"
    "CREATE TABLE IF NOT EXISTS figures(time INTEGER, number INTEGER, name TEXT, type TEXT,"
    " damage TEXT, slots INTEGER, slot_bytes INTEGER, put INTEGER, got INTEGER, errors INTEGER,"
    " file_put INTEGER, file_got INTEGER, full INTEGER, parked INTEGER, waiting_writers INTEGER,"
    " waiting_readers INTEGER, rate_limit INTEGER, throttled INTEGER, last_in INTEGER,"
    " last_out INTEGER, last_error INTEGER,"
    " writer_name TEXT, writer_pid INTEGER, writer_held INTEGER, writer_alive INTEGER,"
    " writer_time INTEGER,"
    " reader_name TEXT, reader_pid INTEGER, reader_held INTEGER, reader_alive INTEGER,"
    " reader_time INTEGER,"
    " file_writer_name TEXT, file_writer_pid INTEGER, file_writer_held INTEGER,"
    " file_writer_alive INTEGER, file_writer_time INTEGER,"
    " file_reader_name TEXT, file_reader_pid INTEGER, file_reader_held INTEGER,"
    " file_reader_alive INTEGER, file_reader_time INTEGER,"
    " PRIMARY KEY(time, number)) WITHOUT ROWID;"
    "PRAGMA user_version = 1;"
    "COMMIT;";

const Database &with_tables(const Database &database) {
    const int64_t version = database.number("PRAGMA user_version");
    if (version == 0 && database.number("SELECT count(*) FROM sqlite_master") > 0)
        throw tools::ToolError(tools::kUsage, "the file is a database of something else");
    if (version > kVersion)
        throw tools::ToolError(tools::kUsage, "the file is a record of a newer halvo-mon");
    database.run(kTables);
    return database;
}

// The values of a channel in the order of the table, both ways.
template <class Row, class Channel>
void each_value(Row &&row, Channel &c) {
    row(c.number);
    row(c.name);
    row(c.type);
    row(c.damage);
    row(c.slots);
    row(c.slot_bytes);
    row(c.put);
    row(c.got);
    row(c.errors);
    row(c.file_put);
    row(c.file_got);
    row(c.full);
    row(c.parked);
    row(c.waiting_writers);
    row(c.waiting_readers);
    row(c.rate_limit);
    row(c.throttled);
    row(c.last_in);
    row(c.last_out);
    row(c.last_error);
    for (auto *end : {&c.writer, &c.reader, &c.file_writer, &c.file_reader}) {
        row(end->name);
        row(end->pid);
        row(end->held);
        row(end->alive);
        row(end->stamp);
    }
}
constexpr int kValues = 20 + 4 * 5;

struct Bind {
    Statement &to;
    void operator()(const std::string &value) { to << value; }
    void operator()(char value) { to << std::string(1, value); }
    template <class Number>
    void operator()(const Number &value) {
        to << static_cast<int64_t>(value);
    }
};

struct Fetch {
    Statement &from;
    void operator()(std::string &value) { from >> value; }
    void operator()(char &value) {
        std::string text;
        from >> text;
        value = text.empty() ? ' ' : text[0];
    }
    template <class Number>
    void operator()(Number &value) {
        from >> value;
    }
};

// What of a channel is recorded, to tell whether it changed.
struct Digest {
    std::string text;
    void operator()(const std::string &value) { text += value + '\0'; }
    template <class Number>
    void operator()(const Number &value) {
        text.append(reinterpret_cast<const char *>(&value), sizeof value);
    }
};

bool same(const ChannelSample &one, const ChannelSample &other) {
    Digest a, b;
    each_value(a, one);
    each_value(b, other);
    return a.text == b.text;
}

std::string insert_figures() {
    std::string sql = "INSERT OR REPLACE INTO figures VALUES(?";
    for (int i = 0; i < kValues; ++i) sql += ",?";
    return sql + ")";
}

} // namespace

Recorder::Recorder(const std::string &path, int64_t most)
    : database_(path, true),
      samples_(with_tables(database_), "INSERT INTO samples VALUES(?,?,?,?,?,?,?,?,?)"),
      figures_(database_, insert_figures().c_str()), most_(most) {}

void Recorder::add_channel(const ChannelSample &channel, int64_t time) {
    figures_ << time;
    each_value(Bind{figures_}, channel);
    figures_.run();
}

void Recorder::add(const Sample &sample) {
    database_.run("BEGIN IMMEDIATE");
    try {
        follow_others();
        if (sample.time < last_time_) // the clock went back, or was wrong before
            throw tools::ToolError(
                tools::kFailed, database_.path() + ": the record ends after the time of now; "
                                                   "nothing is kept until the clock has passed its "
                                                   "end");
        if (sample.time > last_time_) insert(sample); // not for two looks within a second
        database_.run("COMMIT");
    } catch (const tools::ToolError &) { // a full disk: the looks before stay
        sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
        since_whole_ = -1;
        throw;
    }
    last_time_ = sample.time;
}

// Another recorder may add to the same file: what it added is no look that ours go on from.
void Recorder::follow_others() {
    const int64_t version = database_.number("PRAGMA data_version");
    if (version == version_) return;
    version_ = version;
    last_time_ = database_.number("SELECT max(time) FROM samples");
    since_whole_ = -1;
}

void Recorder::insert(const Sample &sample) {
    const bool whole = since_whole_ < 0 || since_whole_ + 1 >= kWholeEvery ||
                       sample.id != before_.id || sample.up != before_.up ||
                       sample.channels.size() != before_.channels.size();
    samples_ << sample.time << sample.taken << int64_t{sample.up} << sample.fault
             << int64_t{sample.id} << static_cast<int64_t>(sample.bytes) << int64_t{sample.started}
             << int64_t{sample.clock} << int64_t{whole};
    samples_.run();
    for (size_t i = 0; i < sample.channels.size(); ++i)
        if (whole || !same(sample.channels[i], before_.channels[i]))
            add_channel(sample.channels[i], sample.time);
    make_room();
    since_whole_ = whole ? 0 : since_whole_ + 1;
    before_ = sample;
}

// From whole one to whole one, so that what stays begins with a whole one.
void Recorder::make_room() {
    for (;;) {
        const int64_t pages =
            database_.number("PRAGMA page_count") - database_.number("PRAGMA freelist_count");
        if (pages * database_.number("PRAGMA page_size") <= most_) return;
        const int64_t next =
            database_.number("SELECT time FROM samples WHERE whole ORDER BY time LIMIT 1 OFFSET 1");
        if (next == 0) return;
        for (const char *sql :
             {"DELETE FROM figures WHERE time < ?", "DELETE FROM samples WHERE time < ?"}) {
            Statement statement(database_, sql);
            statement << next;
            statement.run();
        }
    }
}

RecordSource::RecordSource(const std::string &path) : path_(path), database_(path, false) {
    if (database_.number("PRAGMA user_version") != kVersion)
        throw tools::ToolError(tools::kUsage, path + ": no record of halvo-mon");
    Statement times(database_, "SELECT time FROM samples ORDER BY time");
    while (times.step()) times >> times_.emplace_back();
    if (times_.empty()) throw tools::ToolError(tools::kUsage, path + ": the record is empty");
    position_ = size() - 1;
}

void RecordSource::step(int samples) { go_to(position_ + samples); }
void RecordSource::go_to(int position) { position_ = std::clamp(position, 0, size() - 1); }

int RecordSource::position_of(int64_t time) const {
    const auto behind = std::upper_bound(times_.begin(), times_.end(), time);
    return std::max(static_cast<int>(behind - times_.begin()) - 1, 0);
}

void RecordSource::load_figures(Sample &sample, const char *sql, int64_t time) {
    Statement rows(database_, sql);
    rows << time;
    while (rows.step()) {
        ChannelSample channel;
        int64_t ignored = 0;
        rows >> ignored;
        each_value(Fetch{rows}, channel);
        channel.raw_name = channel.name;
        const auto index = static_cast<size_t>(std::max(channel.number, 0));
        if (index >= HALVO_CHANNELS_MAX) continue;
        if (sample.channels.size() <= index) sample.channels.resize(index + 1);
        sample.channels[index] = channel;
    }
}

Sample RecordSource::loaded(int position) {
    const int64_t time = time_of(position);
    Statement row(database_, "SELECT taken, up, fault, segment, bytes, started, clock, whole FROM "
                             "samples WHERE time = ?");
    row << time;
    Sample sample;
    bool whole = false;
    if (row.step())
        row >> sample.taken >> sample.up >> sample.fault >> sample.id >> sample.bytes >>
            sample.started >> sample.clock >> whole;
    sample.time = time;
    // The monotonic clock begins anew with the machine; between two looks the other one serves.
    sample.taken = static_cast<double>(time);
    if (!whole && at_ == position - 1) sample.channels = std::move(state_.channels);
    load_figures(sample, "SELECT * FROM figures WHERE time = ?", time);
    return sample;
}

Sample RecordSource::take() {
    if (at_ == position_) return state_;
    if (at_ != position_ - 1) { // a jump: from a whole one before
        const int early = position_of(time_of(position_) - kTrackedBefore);
        Statement begin(database_, "SELECT max(time) FROM samples WHERE whole AND time <= ?");
        begin << time_of(early);
        int64_t time = 0;
        if (begin.step()) begin >> time;
        tracker_ = {};
        at_ = position_of(time) - 1;
    }
    while (at_ < position_) {
        Sample sample = loaded(at_ + 1);
        tracker_.judge(sample);
        state_ = std::move(sample);
        ++at_;
    }
    return state_;
}

} // namespace halvo::mon
