#pragma once

#include <cstdint>
#include <string>

#include <sqlite3.h>

namespace Engine {

// A prepared statement, finalised at the end of its life. Every operation passes SQLite's result code
// on; a statement that could not be prepared answers each with the code of that failure.
class Statement {
public:
    Statement(sqlite3* database, const std::string& sql)
        : mPrepared(sqlite3_prepare_v2(database, sql.c_str(), static_cast<int>(sql.size()), &mStatement, nullptr)) {}
    ~Statement() { sqlite3_finalize(mStatement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Parameters are numbered from 1. The text must live until the next Step is done.
    int Bind(int index, std::int64_t value) {
        return IsPrepared() ? sqlite3_bind_int64(mStatement, index, value) : mPrepared;
    }
    int Bind(int index, const std::string& text) {
        return IsPrepared() ? sqlite3_bind_text64(mStatement, index, text.data(), text.size(), nullptr, SQLITE_UTF8)
                            : mPrepared;
    }

    // SQLITE_ROW, SQLITE_DONE or an error.
    int Step() { return IsPrepared() ? sqlite3_step(mStatement) : mPrepared; }
    int Reset() { return IsPrepared() ? sqlite3_reset(mStatement) : mPrepared; }

    // Columns are numbered from 0; only after a Step that gave SQLITE_ROW.
    std::int64_t Integer(int column) const { return sqlite3_column_int64(mStatement, column); }
    std::string Text(int column) const {
        const void* bytes = sqlite3_column_blob(mStatement, column);
        const auto length = static_cast<std::size_t>(sqlite3_column_bytes(mStatement, column));
        return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), length);
    }

private:
    bool IsPrepared() const { return mPrepared == SQLITE_OK; }

    sqlite3_stmt* mStatement = nullptr;
    const int mPrepared;
};

} // namespace Engine
