// The write handlers of all columns except the row status: one skeleton, and a table of facts about
// each column.
#include "config_copy_mib.h"

#include <string.h>

#include <algorithm>

// The value that a manager wrote.
struct written_value {
    const unsigned char *octets;
    unsigned char type; // ASN.1 tag
    size_t length;
};

// The optional messages, of which each column logs some.
enum column_log : unsigned {
    LOG_RESERVE2 = 1U << 0,
    LOG_ACTION = 1U << 1,
    LOG_FREE = 1U << 2,
    LOG_ROW_STATUS_REFUSED = 1U << 3,
    PRINT_ROW_MISSING = 1U << 4,
    PRINT_FREE = 1U << 5,
};

enum save_order { SAVE_THEN_TEST, TEST_THEN_SAVE };

struct column;

// How columns of one kind save, store and restore their value in a row.
struct column_kind {
    void (*save)(struct column &, const struct ccCopyEntry &);
    // an SNMP error status
    int (*store)(const struct column &, const struct written_value &, struct ccCopyEntry &);
    void (*restore)(const struct column &, struct ccCopyEntry &);
};

struct column {
    const char *name;
    const char *handler;
    unsigned char type;
    const char *type_name;
    size_t field; // of the record: its offset
    const struct column_kind *kind;
    enum save_order order;
    unsigned logs = 0;                 // column_log bits
    size_t longest = 0;                // longest value that is not an INTEGER, in octets
    unsigned accepted = 0;             // bit n: the INTEGER n may be written; 0: any value
    const char *refused = nullptr;     // logged when the value may not be written
    const char *length_name_tail = ""; // follows the name in the length message
    // octets of a text's saved copy with its terminator; 0: the old text's own length
    size_t saved_bound = 0;
    // RESERVE1's message
    void (*announce)(const struct column &, const struct written_value &, int32_t index) = nullptr;
    bool announce_first = false; // before the checks

    // The undo slot: one for each column, shared by all rows. Two rows in one PDU get back the
    // value saved last. Written in RESERVE1 and RESERVE2.
    bool saved = false;
    int32_t saved_integer = 0;
    char saved_text[CC_FILE_NAME_SIZE] = "";
};

// --- values

int32_t cc_integer_value(const unsigned char *value, size_t length) {
    if (length == sizeof(long)) {
        long whole;
        memcpy(&whole, value, sizeof whole);
        return (int32_t)whole;
    }
    int32_t word; // also when fewer octets are announced: the agent's buffer holds a whole word
    memcpy(&word, value, sizeof word);
    return word;
}

bool cc_integer_length_ok(size_t length) {
    return length <= sizeof(int32_t) || length == sizeof(long);
}

// The first word of a value that may be shorter than a word.
static uint32_t first_word(const struct written_value &value) {
    uint32_t word = 0;
    if (value.length != 0) { // a NULL has no buffer
        memcpy(&word, value.octets, std::min(value.length, sizeof word));
    }
    return word;
}

static char *field_of(struct ccCopyEntry &row, const struct column &column) {
    return reinterpret_cast<char *>(&row) + column.field;
}
static const char *field_of(const struct ccCopyEntry &row, const struct column &column) {
    return reinterpret_cast<const char *>(&row) + column.field;
}

// --- kinds of columns

static void save_integer(struct column &column, const struct ccCopyEntry &row) {
    memcpy(&column.saved_integer, field_of(row, column), sizeof column.saved_integer);
}

static int store_integer(const struct column &column, const struct written_value &value,
                         struct ccCopyEntry &row) {
    const int32_t integer = cc_integer_value(value.octets, value.length);
    memcpy(field_of(row, column), &integer, sizeof integer);
    return SNMP_ERR_NOERROR;
}

static void restore_integer(const struct column &column, struct ccCopyEntry &row) {
    memcpy(field_of(row, column), &column.saved_integer, sizeof column.saved_integer);
}

// Deliberate: the bounds of the two copies lose text. User name and password keep at most 40
// characters. The file name's bound is the length of the copied text without room for the
// terminator, so the name comes back without its last two characters, and an empty text copies
// nothing at all.
static void save_text(struct column &column, const struct ccCopyEntry &row) {
    const char *text = field_of(row, column);
    const size_t field_size = column.saved_bound != 0 ? column.saved_bound : CC_FILE_NAME_SIZE;
    const size_t length = strnlen(text, field_size);
    snprintf(column.saved_text, column.saved_bound != 0 ? column.saved_bound : length, "%.*s",
             (int)length, text);
}

// Deliberate: the terminator of a user name that fills its field overwrites the password's first
// octet.
static int store_text(const struct column &column, const struct written_value &value,
                      struct ccCopyEntry &row) {
    char *text = field_of(row, column);
    memcpy(text, value.octets, value.length);
    text[value.length] = '\0';
    return SNMP_ERR_NOERROR;
}

static void restore_text(const struct column &column, struct ccCopyEntry &row) {
    snprintf(field_of(row, column),
             column.saved_bound != 0 ? column.saved_bound : strlen(column.saved_text), "%s",
             column.saved_text);
}

static int store_address_type(const struct column &column, const struct written_value &value,
                              struct ccCopyEntry &row) {
    store_integer(column, value, row);
    cc_log(EVTRACE_DEBUG, "%s : Server Address Type: %d\n", column.handler,
           row.ccCopyServerAddressType);
    return SNMP_ERR_NOERROR;
}

// An address from the first octets of the value; never reads past the value.
static struct inet_address address_of(const struct written_value &value,
                                      enum inet_address_type type, size_t octets) {
    struct inet_address address = {};
    address.type = type;
    memcpy(address.octets, value.octets, std::min(value.length, octets));
    return address;
}

static int store_address_text(const struct column &column, const struct inet_address &address,
                              struct ccCopyEntry &row) {
    if (ip_addr_to_str(&address, row.ccCopyServerAddressRev1, CC_ADDRESS_TEXT_SIZE) != 0) {
        cc_log(EVTRACE_ERROR, "%s: ip_addr_to_str() failed- returning SNMP_ERR_WRONGVALUE",
               column.handler);
        return SNMP_ERR_WRONGVALUE;
    }
    return SNMP_ERR_NOERROR;
}

static void save_address(struct column &column, const struct ccCopyEntry &row) {
    memcpy(column.saved_text, row.ccCopyServerAddressRev1, CC_ADDRESS_TEXT_SIZE);
}

// The row's own address type decides how the octets are read. Their number is deliberately not
// compared with it.
static int store_address(const struct column &column, const struct written_value &value,
                         struct ccCopyEntry &row) {
    struct inet_address address;
    switch (row.ccCopyServerAddressType) {
    case INET_ADDRESS_IPV4:
        address = address_of(value, INET_ADDRESS_IPV4, 4);
        cc_log(EVTRACE_DEBUG, "%s: value copied into addr: 0x%08X\n", column.handler,
               first_word({address.octets, value.type, 4}));
        break;
    case INET_ADDRESS_IPV6:
        address = address_of(value, INET_ADDRESS_IPV6, 16);
        break;
    default:
        cc_log(EVTRACE_ERROR,
               "%s: error: server address type is: %d, returning SNMP_ERR_WRONGVALUE\n",
               column.handler, row.ccCopyServerAddressType);
        return SNMP_ERR_WRONGVALUE;
    }
    const int status = store_address_text(column, address, row);
    if (status == SNMP_ERR_NOERROR) {
        cc_log(EVTRACE_DEBUG, "%s : Server Address: %s\n", column.handler,
               row.ccCopyServerAddressRev1);
    }
    return status;
}

static void restore_address(const struct column &column, struct ccCopyEntry &row) {
    memcpy(row.ccCopyServerAddressRev1, column.saved_text, CC_ADDRESS_TEXT_SIZE);
}

// The legacy column saves nothing, so its restore empties the address text, deliberately unlike
// ccCopyServerAddressRev1.
static void save_nothing(struct column &, const struct ccCopyEntry &) {}

static int store_legacy_address(const struct column &column, const struct written_value &value,
                                struct ccCopyEntry &row) {
    const struct inet_address address = address_of(value, INET_ADDRESS_IPV4, 4);
    const uint8_t *o = address.octets;
    char dotted[sizeof "255.255.255.255"];
    snprintf(dotted, sizeof dotted, "%u.%u.%u.%u", o[0], o[1], o[2], o[3]);
    cc_log(EVTRACE_DEBUG, "%s: calling ip_addr_to_str() with addr type: %d, ip address: %s\n",
           column.handler, (int)address.type, dotted);
    const int status = store_address_text(column, address, row);
    if (status == SNMP_ERR_NOERROR) {
        row.ccCopyServerAddressType = INET_ADDRESS_IPV4;
        cc_log(EVTRACE_DEBUG, "%s : Server Address: %s, Server Address Type: %d\n", column.handler,
               row.ccCopyServerAddressRev1, row.ccCopyServerAddressType);
    }
    return status;
}

static void empty_address(const struct column &, struct ccCopyEntry &row) {
    memset(row.ccCopyServerAddressRev1, 0, sizeof row.ccCopyServerAddressRev1);
}

static constexpr struct column_kind INTEGER_KIND = {save_integer, store_integer, restore_integer};
static constexpr struct column_kind TEXT_KIND = {save_text, store_text, restore_text};
static constexpr struct column_kind ADDRESS_TYPE_KIND = {save_integer, store_address_type,
                                                         restore_integer};
static constexpr struct column_kind ADDRESS_KIND = {save_address, store_address, restore_address};
static constexpr struct column_kind LEGACY_ADDRESS_KIND = {save_nothing, store_legacy_address,
                                                           empty_address};

// --- messages of RESERVE1

static void announce_protocol(const struct column &column, const struct written_value &value,
                              int32_t index) {
    cc_log(EVTRACE_DEBUG,
           "%s : Entering RESERVE1 of entry (index = %d) : The protocol being set = %d\n",
           column.handler, index, cc_integer_value(value.octets, value.length));
}

static void announce_entry(const struct column &column, const struct written_value &,
                           int32_t index) {
    cc_log(EVTRACE_DEBUG, "%s : Entering RESERVE1 of entry (index = %d) \n", column.handler, index);
}

static void announce_address_type(const struct column &column, const struct written_value &value,
                                  int32_t index) {
    // The checks come later: a value that is not an INTEGER may be shorter than a word.
    const bool well_formed = value.type == ASN_INTEGER && cc_integer_length_ok(value.length);
    cc_log(
        EVTRACE_DEBUG,
        "%s : Entering RESERVE1 of entry (index = %d) : The server address type being set = %d\n",
        column.handler, index,
        well_formed ? cc_integer_value(value.octets, value.length) : (int32_t)first_word(value));
}

static void announce_address(const struct column &column, const struct written_value &value,
                             int32_t index) {
    cc_log(EVTRACE_DEBUG, "%s : Entering RESERVE1 of entry (index = %d)\n", column.handler, index);
    cc_log(EVTRACE_DEBUG, "%s : length of value: %d\n", column.handler, (int)value.length);
}

static void print_legacy_address(const struct column &column, const struct written_value &value,
                                 int32_t) {
    printf("DEBUG : %s : Server Address : %u Length %d\n", column.handler, first_word(value),
           (int)value.length);
}

// --- the skeleton

static int reserve1(struct column &column, const struct written_value &value, int32_t index) {
    column.saved = false;
    if (column.announce != nullptr && column.announce_first) {
        column.announce(column, value, index);
    }
    if (value.type != column.type) {
        fprintf(stderr, "write to %s not %s\n", column.name, column.type_name);
        return SNMP_ERR_WRONGTYPE;
    }
    if (column.type == ASN_INTEGER ? !cc_integer_length_ok(value.length)
                                   : value.length > column.longest) {
        fprintf(stderr, "write to %s%s: bad length\n", column.name, column.length_name_tail);
        return SNMP_ERR_WRONGLENGTH;
    }
    if (column.accepted != 0) {
        const int32_t integer = cc_integer_value(value.octets, value.length);
        if (integer < 0 || integer > 31 || (column.accepted & 1U << integer) == 0) {
            if (column.refused != nullptr) {
                cc_log(EVTRACE_ERROR, "%s: %s", column.handler, column.refused);
            }
            return SNMP_ERR_WRONGVALUE;
        }
    }
    if (column.announce != nullptr && !column.announce_first) {
        column.announce(column, value, index);
    }
    return SNMP_ERR_NOERROR;
}

static int reserve2(struct column &column, const struct written_value &value, int32_t index) {
    if (column.logs & LOG_RESERVE2) {
        cc_log(EVTRACE_DEBUG, "%s : Entering RESERVE2 of entry (index = %d) \n", column.handler,
               index);
    }
    struct ccCopyEntry row;
    row.ccCopyIndex = index;
    if (getCcCopyEntry(&row) != 0) {
        if (column.logs & PRINT_ROW_MISSING) {
            printf("ERROR %s: Entry (index = %d) not found  ", column.handler, index);
        }
        return SNMP_ERR_NOSUCHNAME;
    }
    const auto save = [&] {
        column.saved = true;
        column.kind->save(column, row);
    };
    if (column.order == SAVE_THEN_TEST) {
        save();
    }
    const int32_t status = row.ccCopyEntryRowStatus;
    if (status != ROW_STATUS_NOT_READY && status != ROW_STATUS_CREATE_AND_GO &&
        status != ROW_STATUS_CREATE_AND_WAIT) {
        if (column.logs & LOG_ROW_STATUS_REFUSED) {
            cc_log(EVTRACE_ERROR,
                   "%s : The row status is not correctly set for this entry (index = %d) \n",
                   column.handler, index);
        }
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    if (column.order == TEST_THEN_SAVE) {
        save();
    }
    const int stored = column.kind->store(column, value, row);
    if (stored != SNMP_ERR_NOERROR) {
        return stored;
    }
    return setCcCopyEntry(&row, 0) == 0 ? SNMP_ERR_NOERROR : SNMP_ERR_GENERR;
}

static int action_phase(const struct column &column, int32_t index) {
    if (column.logs & LOG_ACTION) {
        cc_log(EVTRACE_DEBUG, "%s : Entering ACTION of entry (index = %d) \n", column.handler,
               index);
    }
    struct ccCopyEntry row;
    row.ccCopyIndex = index;
    return getCcCopyEntry(&row) == 0 ? SNMP_ERR_NOERROR : SNMP_ERR_NOSUCHNAME;
}

static int free_phase(const struct column &column, int32_t index) {
    if (!column.saved) {
        return SNMP_ERR_NOERROR;
    }
    if (column.logs & LOG_FREE) {
        cc_log(EVTRACE_DEBUG, "%s : Entering FREE of entry (index = %d) \n", column.handler, index);
    }
    if (column.logs & PRINT_FREE) {
        printf("DEBUG : %s : Entering FREE of entry (index = %d) \n", column.handler, index);
    }
    struct ccCopyEntry row;
    row.ccCopyIndex = index;
    if (getCcCopyEntry(&row) != 0) {
        return SNMP_ERR_NOERROR;
    }
    column.kind->restore(column, row);
    return setCcCopyEntry(&row, 0) == 0 ? SNMP_ERR_NOERROR : SNMP_ERR_GENERR;
}

static int write_column(struct column &column, int action, const struct written_value &value,
                        int32_t index) {
    switch (action) {
    case RESERVE1:
        return reserve1(column, value, index);
    case RESERVE2: // from here on the value is in the table
        return reserve2(column, value, index);
    case ACTION:
        return action_phase(column, index);
    case FREE:
        return free_phase(column, index);
    default: // COMMIT and UNDO: only FREE restores
        return SNMP_ERR_NOERROR;
    }
}

// --- the columns

// The part of a column's facts that the list of columns has: its ASN.1 type, and where the record
// keeps its value.
struct listed_column {
    unsigned char type;
    const char *type_name;
    size_t field;
};
#define LISTED(name, number, asn_type, access, reader, record_field)                               \
    [[maybe_unused]] static constexpr struct listed_column name##_listed = {                       \
        asn_type, #asn_type, offsetof(ccCopyEntry, record_field)};
CC_COPY_COLUMNS(LISTED)
#undef LISTED

// Defines a column: adds the facts about writing it to those of the list, and defines its exported
// write handler.
#define COLUMN(column_name, ...)                                                                   \
    static struct column column_name##_column = {.name = #column_name,                             \
                                                 .handler = "set_" #column_name,                   \
                                                 .type = column_name##_listed.type,                \
                                                 .type_name = column_name##_listed.type_name,      \
                                                 .field = column_name##_listed.field,              \
                                                 __VA_ARGS__};                                     \
    int set_##column_name(int action, unsigned char *var_val, unsigned char var_val_type,          \
                          size_t var_val_len, unsigned char *, oid *name, size_t name_len) {       \
        return write_column(column_name##_column, action, {var_val, var_val_type, var_val_len},    \
                            (int32_t)name[name_len - 1]);                                          \
    }

// A bit for each value that may be written.
#define VALUE(value) (1U << (value))

COLUMN(ccCopyProtocol, .kind = &INTEGER_KIND, .order = SAVE_THEN_TEST,
       .logs = LOG_RESERVE2 | LOG_ACTION | LOG_FREE | LOG_ROW_STATUS_REFUSED,
       // RCP is a value elsewhere; deliberately it can't be written.
       .accepted = VALUE(COPY_PROTO_TFTP) | VALUE(COPY_PROTO_FTP) | VALUE(COPY_PROTO_SCP) |
                   VALUE(COPY_PROTO_SFTP),
       .announce = announce_protocol)

// File types and the notification flag take any value here; the activation checks them.
COLUMN(ccCopySourceFileType, .kind = &INTEGER_KIND, .order = SAVE_THEN_TEST,
       .logs = LOG_RESERVE2 | LOG_ACTION | LOG_FREE, .announce = announce_entry)

COLUMN(ccCopyDestFileType, .kind = &INTEGER_KIND, .order = SAVE_THEN_TEST, .logs = LOG_FREE)

COLUMN(ccCopyFileName, .kind = &TEXT_KIND, .order = TEST_THEN_SAVE,
       .logs = LOG_ACTION | LOG_FREE | PRINT_ROW_MISSING, .longest = CC_FILE_NAME_MAX)

COLUMN(ccCopyUserName, .kind = &TEXT_KIND, .order = TEST_THEN_SAVE, .logs = LOG_FREE,
       .longest = CC_CREDENTIAL_SIZE, .saved_bound = CC_CREDENTIAL_SIZE)

COLUMN(ccCopyUserPassword, .kind = &TEXT_KIND, .order = TEST_THEN_SAVE, .logs = LOG_FREE,
       .longest = CC_CREDENTIAL_SIZE, .saved_bound = CC_CREDENTIAL_SIZE)

COLUMN(ccCopyNotificationOnCompletion, .kind = &INTEGER_KIND, .order = TEST_THEN_SAVE,
       .logs = LOG_FREE)

COLUMN(ccCopyServerAddressType, .kind = &ADDRESS_TYPE_KIND, .order = SAVE_THEN_TEST,
       .logs = LOG_RESERVE2 | LOG_ACTION | LOG_FREE | LOG_ROW_STATUS_REFUSED,
       .accepted = VALUE(INET_ADDRESS_IPV4) | VALUE(INET_ADDRESS_IPV6),
       .refused =
           "var_val is not INET_ADDRESS_IPV4 or INET_ADDRESS_IPV6- returning SNMP_ERR_WRONGVALUE",
       .length_name_tail = "l", .announce = announce_address_type, .announce_first = true)

COLUMN(ccCopyServerAddressRev1, .kind = &ADDRESS_KIND, .order = TEST_THEN_SAVE,
       .logs = LOG_RESERVE2 | LOG_ACTION | LOG_FREE, .longest = CC_ADDRESS_TEXT_SIZE,
       .announce = announce_address, .announce_first = true)

COLUMN(ccCopyServerAddress, .kind = &LEGACY_ADDRESS_KIND, .order = SAVE_THEN_TEST,
       .logs = LOG_RESERVE2 | LOG_ACTION | PRINT_FREE, .longest = 4,
       .announce = print_legacy_address)

#undef COLUMN
#undef VALUE
