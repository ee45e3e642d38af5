#include "bench/StorePeers.h"

#include "bench/RecordedDay.h"

#include <rrd.h>
#include <sqlite3.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr char kRoundRobinFile[] = "/tmp/day.rrd";
constexpr char kSqlFile[] = "/tmp/day.sqlite";
constexpr int kHalfHourSeconds = 1800;

void check(bool isGood, const std::string& what) {
    if (!isGood) {
        throw std::runtime_error(what);
    }
}

void execute(sqlite3* database, const char* statement) {
    check(sqlite3_exec(database, statement, nullptr, nullptr, nullptr) == SQLITE_OK, statement);
}

/// Runs the query to its end.
int countRows(sqlite3_stmt* select) {
    int rows = 0;
    while (sqlite3_step(select) == SQLITE_ROW) {
        ++rows;
    }
    check(sqlite3_finalize(select) == SQLITE_OK, "no query");
    return rows;
}

}  // namespace

struct RoundRobinPeer::Samples {
    std::uint32_t begin = 0;
    std::vector<std::string> texts;
    std::vector<const char*> arguments;
};

RoundRobinPeer::RoundRobinPeer(const QString& date) : _samples(new Samples) {
    _samples->begin = RecordedDay::midnight(date);
    for (int second = 0; second < RecordedDay::kSamples; ++second) {
        _samples->texts.push_back(std::to_string(_samples->begin + second) + ":" +
                                  std::to_string(100 + second % 50) + ":20.0");
    }
    for (const std::string& text : _samples->texts) {
        _samples->arguments.push_back(text.c_str());
    }
}

RoundRobinPeer::~RoundRobinPeer() {
    delete _samples;
    ::unlink(kRoundRobinFile);
}

void RoundRobinPeer::clear() {
    const char* definition[] = {"DS:flow:GAUGE:10:U:U", "DS:heat:GAUGE:10:U:U",
                                "RRA:AVERAGE:0.5:900:2976"};
    rrd_clear_error();
    check(rrd_create_r(kRoundRobinFile, 1, _samples->begin - 1, 3, definition) == 0,
          rrd_get_error());
}

void RoundRobinPeer::update() {
    check(rrd_update_r(kRoundRobinFile, nullptr, static_cast<int>(_samples->arguments.size()),
                       _samples->arguments.data()) == 0,
          rrd_get_error());
}

void RoundRobinPeer::fetchHalfHour(int fromSecond) {
    time_t start = _samples->begin + fromSecond;
    time_t end = start + kHalfHourSeconds;
    unsigned long step = 1;
    unsigned long sources = 0;
    char** names = nullptr;
    rrd_value_t* values = nullptr;
    check(rrd_fetch_r(kRoundRobinFile, "AVERAGE", &start, &end, &step, &sources, &names, &values) ==
              0,
          rrd_get_error());
    for (unsigned long source = 0; source < sources; ++source) {
        rrd_freemem(names[source]);
    }
    rrd_freemem(names);
    rrd_freemem(values);
}

SqlPeer::SqlPeer(const QString& date) : _begin(RecordedDay::midnight(date)) {
    ::unlink(kSqlFile);
    check(sqlite3_open(kSqlFile, &_database) == SQLITE_OK, "no database");
    execute(_database, "CREATE TABLE sample (time INTEGER PRIMARY KEY, value REAL, heat REAL)");
    execute(_database, "BEGIN");
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(_database, "INSERT INTO sample VALUES (?, ?, 20.0)", -1, &insert, nullptr);
    for (int second = 0; second < RecordedDay::kSamples; ++second) {
        sqlite3_bind_int64(insert, 1, _begin + second);
        sqlite3_bind_double(insert, 2, 100 + second % 50);
        check(sqlite3_step(insert) == SQLITE_DONE, "no insert");
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    execute(_database, "COMMIT");
}

SqlPeer::~SqlPeer() {
    sqlite3_close(_database);
    ::unlink(kSqlFile);
}

int SqlPeer::query() {
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(_database, "SELECT min(time), value, heat FROM sample GROUP BY time / 900",
                       -1, &select, nullptr);
    return countRows(select);
}

int SqlPeer::openAndQueryHalfHour(int fromSecond) {
    sqlite3* database = nullptr;
    check(sqlite3_open(kSqlFile, &database) == SQLITE_OK, "no database");
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(database, "SELECT time, value FROM sample WHERE time BETWEEN ? AND ?", -1,
                       &select, nullptr);
    sqlite3_bind_int64(select, 1, _begin + fromSecond);
    sqlite3_bind_int64(select, 2, _begin + fromSecond + kHalfHourSeconds - 1);
    const int rows = countRows(select);
    sqlite3_close(database);
    return rows;
}
