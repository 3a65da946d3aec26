// GET and GETNEXT on both tables.
#include "config_copy_mib.h"

#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

struct ccCopyEntry cc_last_read_row = {};

// Like cc_last_read_row, these hold what the read handlers' results point to until the next call.
// Only the handlers write them.
static uint32_t read_ticks;
static struct inet_address read_address;
static struct ccCopyErrorEntry read_error_row;

static constexpr size_t INTEGER_LENGTH = 4;
static constexpr size_t IPV4_LENGTH = 4;
static constexpr size_t IPV6_LENGTH = 16;

template <typename Field>
static unsigned char *field_value(Field &field, size_t length, size_t *var_len) {
    *var_len = length;
    return reinterpret_cast<unsigned char *>(&field);
}

static unsigned char *integer_value(int32_t &field, size_t *var_len) {
    return field_value(field, INTEGER_LENGTH, var_len);
}

// A text field: the length of its text, but never more than the field, which may lack a terminator.
template <size_t capacity>
static unsigned char *text_value(char (&field)[capacity], size_t *var_len) {
    return field_value(field, strnlen(field, capacity), var_len);
}

static unsigned char *ticks_value(struct ccTime when, size_t *var_len) {
    const bool never = when.tv_sec == 0 && when.tv_usec == 0;
    read_ticks = never || cc_is_before_agents_start(when) ? 0 : cc_uptime_of(when);
    return field_value(read_ticks, INTEGER_LENGTH, var_len);
}

// The binary form of an address text; empty if it is not an address.
static unsigned char *address_value(const char *text, size_t *var_len) {
    if (ip_addr_from_str(text, &read_address) != 0) {
        *var_len = 0;
        return nullptr;
    }
    return field_value(read_address.octets,
                       read_address.type == INET_ADDRESS_IPV4 ? IPV4_LENGTH : IPV6_LENGTH, var_len);
}

// The same for the legacy column, which supports only IPv4.
static unsigned char *ipv4_value(const char *text, size_t *var_len) {
    unsigned char *octets = address_value(text, var_len);
    if (octets != nullptr && read_address.type != INET_ADDRESS_IPV4) {
        *var_len = 0;
        return nullptr;
    }
    return octets;
}

static unsigned char *undisclosed_value(const char *, size_t *var_len) {
    static char empty[1] = "";
    return text_value(empty, var_len);
}

static unsigned char *no_value(void) {
    snmp_set_detail("");
    return nullptr;
}

// A sub-identifier as the key of a GETNEXT. Indexes end at 2147483647, so everything above counts
// as the last index.
static int32_t next_key(oid sub_identifier) {
    return sub_identifier > INT32_MAX ? INT32_MAX : (int32_t)sub_identifier;
}

// A sub-identifier as the key of a GET. Above 2147483647 the key becomes negative, and no row has
// such a key.
static int32_t exact_key(oid sub_identifier) {
    return (int32_t)(uint32_t)sub_identifier;
}

// --- ccCopyTable

uint32_t copy_oid_index_parse(const oid *prefix, size_t prefix_len, const oid *name, size_t length,
                              int exact, int32_t *index) {
    *index = 0;
    if (length <= prefix_len) {
        return 0;
    }
    if (exact != 0) {
        if (length != prefix_len + 1) {
            return CCERR_FAILED;
        }
        *index = exact_key(name[prefix_len]);
        return 0;
    }
    if (snmp_oid_compare(name, prefix_len, prefix, prefix_len) == 0) {
        *index = next_key(name[prefix_len]);
    }
    return 0;
}

uint32_t copy_row_lookup(const oid *prefix, size_t prefix_len, oid *name, size_t *length, int exact,
                         struct ccCopyEntry *record) {
    oid found[MAX_OID_LEN];
    memcpy(found, prefix, prefix_len * sizeof(oid));
    copy_oid_index_parse(prefix, prefix_len, name, *length, exact, &record->ccCopyIndex);
    const uint32_t status = exact != 0 ? getCcCopyEntry(record) : getnextCcCopyEntry(record);
    if (status == 0) {
        found[prefix_len] = (oid)record->ccCopyIndex;
        *length = prefix_len + 1;
        memcpy(name, found, *length * sizeof(oid));
    }
    return status;
}

unsigned char *get_ccCopyTable(struct variable *vp, oid *name, size_t *length, int exact,
                               size_t *var_len, WriteMethod **write_method) {
    const uint32_t status =
        copy_row_lookup(vp->name, vp->namelen, name, length, exact, &cc_last_read_row);
    // Also when there is no row: the write handler of the row status creates it.
    set_ccCopyTable_setmethods(vp->magic, write_method);
    if (status != 0) {
        return nullptr;
    }

    switch (vp->magic) {
#define READ_COLUMN(name, number, type, access, reader, field)                                     \
    case CC_MAGIC_##number:                                                                        \
        return reader(cc_last_read_row.field, var_len);
        CC_COPY_COLUMNS(READ_COLUMN)
#undef READ_COLUMN
    default:
        return no_value();
    }
}

// --- ccCopyErrorTable

// the function that the message names
static constexpr char READ_ERROR_NAME[] = "get_ccCopyErrorTable";

static unsigned char *device_address_value(const char *text, size_t *var_len) {
    unsigned char *octets = address_value(text, var_len);
    if (octets != nullptr) {
        uint32_t first_word;
        memcpy(&first_word, octets, sizeof first_word);
        cc_log(EVTRACE_DEBUG,
               "%s: GET FUNCTION: returning device ip addr: %s (0x%08x), device ip addr type: %d\n",
               READ_ERROR_NAME, text, first_word, read_error_row.ccCopyErrorDeviceAddrType);
    }
    return octets;
}

static unsigned char *wwn_value(uint8_t (&wwn)[CC_WWN_SIZE], size_t *var_len) {
    return field_value(wwn, sizeof wwn, var_len);
}

unsigned char *get_ccCopyErrorTable(struct variable *vp, oid *name, size_t *length, int exact,
                                    size_t *var_len, WriteMethod **) {
    static constexpr size_t EXACT_EXTRA_MAX = 11;
    const size_t prefix_len = vp->namelen;
    oid found[MAX_OID_LEN];
    cc_log(EVTRACE_DEBUG, "%s \n", __func__);
    memcpy(found, vp->name, prefix_len * sizeof(oid));
    read_error_row = {};
    // Deliberate: a GET with up to this many sub-identifiers is accepted, and only the first two
    // count.
    if (exact != 0 && *length > prefix_len + EXACT_EXTRA_MAX) {
        return nullptr;
    }
    if (*length > prefix_len && snmp_oid_compare(name, prefix_len, vp->name, prefix_len) == 0) {
        const bool two_keys = *length >= prefix_len + 2;
        const oid request = name[prefix_len];
        if (exact != 0) {
            read_error_row.ccCopyIndex = exact_key(request);
            read_error_row.ccCopyErrorIndex = two_keys ? exact_key(name[prefix_len + 1]) : 0;
        } else {
            read_error_row.ccCopyIndex = next_key(request);
            if (request > INT32_MAX) {
                read_error_row.ccCopyErrorIndex = INT32_MAX;
            } else if (two_keys) {
                read_error_row.ccCopyErrorIndex = next_key(name[prefix_len + 1]);
            }
        }
    }
    if ((exact != 0 ? getCcCopyErrorEntry(&read_error_row)
                    : getnextCcCopyErrorEntry(&read_error_row)) != 0) {
        return nullptr;
    }
    found[prefix_len] = (oid)read_error_row.ccCopyIndex;
    found[prefix_len + 1] = (oid)read_error_row.ccCopyErrorIndex;
    *length = prefix_len + 2;
    memcpy(name, found, *length * sizeof(oid));

    switch (vp->magic) {
#define READ_COLUMN(name, number, type, access, reader, field)                                     \
    case CC_MAGIC_ERROR_##number:                                                                  \
        return reader(read_error_row.field, var_len);
        CC_ERROR_COLUMNS(READ_COLUMN)
#undef READ_COLUMN
    default:
        return no_value();
    }
}
