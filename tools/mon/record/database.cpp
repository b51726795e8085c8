#include "tools/mon/record/database.h"

#include <cerrno>
#include <cstring>

#include "tools/frame/output.h"

namespace halvo::mon {

namespace {

constexpr int kPatience = 5000; // ms, while another process writes

} // namespace

Database::Database(const std::string &path, bool writable) : path_(path) {
    const int flags = writable ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
    if (sqlite3_open_v2(path.c_str(), &handle_, flags, nullptr) != SQLITE_OK) {
        const int reason = handle_ ? sqlite3_system_errno(handle_) : ENOMEM; // 0: not the system's
        const std::string why = reason != 0 ? std::strerror(reason) : sqlite3_errmsg(handle_);
        sqlite3_close(handle_);
        throw tools::ToolError(tools::kUsage, path + ": " + why);
    }
    sqlite3_busy_timeout(handle_, kPatience);
}

void Database::fail() const {
    throw tools::ToolError(tools::kFailed, path_ + ": " + sqlite3_errmsg(handle_));
}

void Database::run(const char *sql) const {
    if (sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

int64_t Database::number(const char *sql) const {
    Statement statement(*this, sql);
    int64_t value = 0;
    if (statement.step()) statement >> value;
    return value;
}

Statement::Statement(const Database &database, const char *sql) : database_(database) {
    if (sqlite3_prepare_v2(database.handle(), sql, -1, &handle_, nullptr) != SQLITE_OK)
        database.fail();
}

Statement &Statement::operator<<(int64_t value) {
    sqlite3_bind_int64(handle_, ++bound_, value);
    return *this;
}
Statement &Statement::operator<<(double value) {
    sqlite3_bind_double(handle_, ++bound_, value);
    return *this;
}
Statement &Statement::operator<<(const std::string &value) {
    sqlite3_bind_text(handle_, ++bound_, value.data(), static_cast<int>(value.size()),
                      SQLITE_TRANSIENT);
    return *this;
}

bool Statement::step() {
    column_ = 0;
    const int result = sqlite3_step(handle_);
    if (result == SQLITE_ROW) return true;
    bound_ = 0;
    sqlite3_reset(handle_);
    if (result != SQLITE_DONE) database_.fail();
    return false;
}

Statement &Statement::operator>>(double &value) {
    value = sqlite3_column_double(handle_, column_++);
    return *this;
}
Statement &Statement::operator>>(std::string &value) {
    const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(handle_, column_));
    value.assign(bytes ? bytes : "", static_cast<size_t>(sqlite3_column_bytes(handle_, column_)));
    ++column_;
    return *this;
}

} // namespace halvo::mon
