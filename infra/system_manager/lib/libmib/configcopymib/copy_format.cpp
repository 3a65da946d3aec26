// A text that is its own format: expanded as by printf(3), with harmless arguments.
#include "config_copy_mib.h"

#include <ctype.h>
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "platform/system_manager.h"

// Reads a decimal number, limited to the values that a field of a request can hold. '*' takes an
// argument, and arguments are 0.
static unsigned take_number(const char *&p) {
    unsigned number = 0;
    if (*p == '*') {
        p++;
    }
    for (; isdigit((unsigned char)*p) != 0; p++) {
        number = std::min(number * 10 + (unsigned)(*p - '0'), WARDEN_CFG_ACTION_TEXT_SIZE);
    }
    return number;
}

// Expands the conversion specification after a '%' at `p` as printf(3) does, and moves `p` past it.
// The argument is harmless: zero, the empty text, or a null pointer; nothing is ever stored.
static std::string take_conversion(const char *&p) {
    std::string format = "%";
    const char *digits = p;
    // the number of an argument: all arguments are alike
    if (take_number(digits) != 0 && *digits == '$') {
        p = digits + 1;
    }
    for (; *p != '\0' && strchr("-+ #0'", *p) != nullptr; p++) {
        if (format.find(*p) == std::string::npos) {
            format += *p;
        }
    }
    if (const unsigned width = take_number(p); width != 0) {
        format += std::to_string(width);
    }
    if (*p == '.') {
        p++;
        format += '.' + std::to_string(take_number(p));
    }
    p += strspn(p, "hlLqjzt");
    if (*p == '\0') {
        return "";
    }
    const char conversion = *p++;
    char text[4 * WARDEN_CFG_ACTION_TEXT_SIZE] = "";
    format += conversion;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (strchr("diouxX", conversion) != nullptr) {
        snprintf(text, sizeof text, format.c_str(), 0);
    } else if (strchr("eEfFgGaA", conversion) != nullptr) {
        snprintf(text, sizeof text, format.c_str(), 0.0);
    } else if (conversion == 's') {
        snprintf(text, sizeof text, format.c_str(), "");
    } else if (conversion == 'p') {
        snprintf(text, sizeof text, format.c_str(), static_cast<void *>(nullptr));
    } else if (conversion == '%') {
        return "%";
    } else if (conversion == 'm') {
        return strerror(errno);
    }
#pragma GCC diagnostic pop
    return text;
}

// Deliberate: the text is formatted with itself as the format, so a '%' in it is a conversion.
void cc_format_as_its_own_format(char *out, size_t size, const char *text) {
    std::string formatted;
    while (*text != '\0' && formatted.size() < size) {
        const char c = *text++;
        if (c == '%') {
            formatted += take_conversion(text);
        } else {
            formatted += c;
        }
    }
    snprintf(out, size, "%s", formatted.c_str());
}
