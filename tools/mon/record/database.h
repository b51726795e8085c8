// halvo-mon: a file of SQLite, with statements as objects. Failures throw ToolError with the file's name.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>

namespace halvo::mon {

class Database {
public:
    // Makes the file when it is to be written and is not there.
    Database(const std::string &path, bool writable);
    ~Database() { sqlite3_close(handle_); }
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    void run(const char *sql) const;
    int64_t number(const char *sql) const; // the first column of the first row; 0 without one
    sqlite3 *handle() const { return handle_; }
    const std::string &path() const { return path_; }
    [[noreturn]] void fail() const;

private:
    std::string path_;
    sqlite3 *handle_ = nullptr;
};

// A statement that is used again and again: bound, stepped, read by columns in their order.
class Statement {
public:
    Statement(const Database &database, const char *sql);
    ~Statement() { sqlite3_finalize(handle_); }
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    // Binds the next parameter.
    Statement &operator<<(int64_t value);
    Statement &operator<<(double value);
    Statement &operator<<(const std::string &value);
    bool step(); // false behind the last row; then it may be bound anew
    void run() {
        while (step()) {
        }
    }

    // The next column of the row.
    template <class Number>
    Statement &operator>>(Number &value) {
        value = static_cast<Number>(sqlite3_column_int64(handle_, column_++));
        return *this;
    }
    Statement &operator>>(double &value);
    Statement &operator>>(std::string &value);

private:
    const Database &database_;
    sqlite3_stmt *handle_ = nullptr;
    int bound_ = 0, column_ = 0;
};

} // namespace halvo::mon
