// Rows, OIDs, and SETs as a stock agent runs them, for tests of the module.
#ifndef TESTS_UNIT_MODULE_FIXTURE_H
#define TESTS_UNIT_MODULE_FIXTURE_H

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config_copy_mib.h"
#include "fakes.h"

using Oid = std::vector<oid>;

// The OID of a column of ccCopyTable, and of an instance of it.
Oid copy_column(oid column);
Oid copy_instance(oid column, oid index);
// The OID of a column of ccCopyErrorTable.
Oid error_column(oid column);

// Adds a row with all defaults to the table.
void add_row(int32_t index, int32_t row_status = ROW_STATUS_NOT_READY);
// The stored row. If there is none, fails the test and returns an empty record.
ccCopyEntry stored_row(int32_t index);
bool row_exists(int32_t index);
// Overwrites the stored row.
void store_row(const ccCopyEntry &row);
// The indexes of the stored rows, in the order of a walk.
std::vector<int32_t> stored_indexes();

// The text of a record's field, at most as long as the field.
template <std::size_t Size> std::string text_of(const char (&field)[Size]) {
    return std::string(field, strnlen(field, Size));
}
// Writes a text to a record's field. A text that fills the field has no terminator.
template <std::size_t Size> void put_text(char (&field)[Size], std::string_view text) {
    std::fill_n(field, Size, '\0');
    std::copy_n(text.begin(), std::min(Size, text.size()), field);
}

// A value as the agent passes it to a write method, in a block of exactly its length; the block of
// an INTEGER has at least 32 bits, as the agent's buffer does.
struct Value {
    unsigned char type;
    std::size_t length;
    std::shared_ptr<unsigned char[]> octets;
};
// The word with more bits above it, where a long has room for them.
constexpr long beyond_a_word(int32_t word) {
    return static_cast<long>((int64_t{7} << 32) + word);
}
// An INTEGER as the agent passes it: a long.
Value integer(long value);
// An INTEGER with another announced length: a word, where that is not a long's.
Value integer_of_length(long value, std::size_t length);
Value octet_string(std::string_view octets);
Value ip_address(std::string_view octets);
Value with_type(Value value, unsigned char type);

// Log texts show an address as the word that its first octets are on this machine.
constexpr const char *by_byte_order(const char *little_endian, const char *big_endian) {
    return std::endian::native == std::endian::little ? little_endian : big_endian;
}

// Calls a write method once, for one instance.
int call_phase(WriteMethod *method, int phase, const Value &value, oid column, oid index,
               unsigned char *state = nullptr);

struct Varbind {
    oid column;
    oid index;
    Value value;
    Oid between{}; // sub-identifiers between column and index: too many for a row

    Oid name() const;
};

// One variable of a SET. The agent looks it up once, before RESERVE1, and calls the write method
// that it found in every phase.
class Request {
  public:
    explicit Request(Varbind varbind) : varbind_(std::move(varbind)) {}
    // Runs a phase and returns its result; SNMP_ERR_NOTWRITABLE if the column has no write method.
    int run(int phase);
    const Varbind &varbind() const { return varbind_; }
    bool writable() const { return write_method_ != nullptr; }
    // The value area that the read handler returned; null if there was no row.
    unsigned char *state() const { return state_; }

  private:
    Varbind varbind_;
    WriteMethod *write_method_ = nullptr;
    unsigned char *state_ = nullptr;
};

// A SET as the stock agent runs it. Variables are grouped by column in order of first appearance.
// Every phase reaches all of them, even after an error. A failure of RESERVE1 or RESERVE2 brings
// FREE to all, a failure of ACTION brings UNDO.
struct SetResult {
    int status;                       // the first error, or 0
    int failed_phase;                 // its phase, or -1 if there was none
    std::vector<std::string> history; // such as "RESERVE1 2.5": phase, column and index, in order
};
SetResult set(const std::vector<Varbind> &varbinds);

// A GET or GETNEXT of one registered variable, by its column's OID.
struct Answer {
    Oid name;
    std::string octets;
    WriteMethod *write_method;
};
std::optional<Answer> get(const Oid &column, const Oid &name);
std::optional<Answer> get_next(const Oid &column, const Oid &name);

// The module between load and unload.
class LoadedModuleTest : public ModuleTest {
  protected:
    void SetUp() override;
    void TearDown() override;
};

// The private trace file of this process, switched on while the object exists. The module keeps its
// stream open for the life of the process, so each object reads only what was written since it was
// created.
class TraceFile {
  public:
    TraceFile();
    ~TraceFile();
    TraceFile(const TraceFile &) = delete;
    TraceFile &operator=(const TraceFile &) = delete;

    // The text written since the last call, unchanged.
    std::string take_raw();
    // The texts written since the last call, each without its stamp and the newline that ends its
    // record. The line number in the prefix is replaced: "(123):" becomes "(#):".
    std::vector<std::string> take();

  private:
    int fd_;
};

// A fixture for tests that read the trace file.
template <class Base> class Traced : public Base {
  protected:
    void SetUp() override {
        Base::SetUp();
        file = std::make_unique<TraceFile>();
    }
    void TearDown() override {
        file.reset();
        Base::TearDown();
    }
    std::unique_ptr<TraceFile> file;
};

#endif
