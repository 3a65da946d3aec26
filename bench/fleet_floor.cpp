// The least that COUNT requests cost: one session of the Net-SNMP library, one GET after another.
// Prints the CPU seconds.
//
// usage: bench_fleet_floor AGENT COUNT
#include "config-copy/copy_table.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <cstdlib>
#include <ctime>
#include <iostream>

int main(int count, char **words) {
    if (count != 3) {
        std::cerr << "usage: bench_fleet_floor AGENT COUNT\n";
        return 2;
    }
    ::init_snmp("fleet_floor");
    netsnmp_session settings;
    ::snmp_sess_init(&settings);
    settings.version = SNMP_VERSION_2c;
    settings.peername = words[1];
    static char community[] = "lab";
    settings.community = reinterpret_cast<u_char *>(community);
    settings.community_len = sizeof community - 1;
    void *session = ::snmp_sess_open(&settings);
    const auto name = config_copy::copy_cell(CC_COLUMN_STATE, 1);
    const std::clock_t began = std::clock();
    for (long left = std::strtol(words[2], nullptr, 10); left > 0; --left) {
        netsnmp_pdu *request = ::snmp_pdu_create(SNMP_MSG_GET);
        netsnmp_pdu *answer = nullptr;
        ::snmp_add_null_var(request, name.data(), name.size());
        if (session == nullptr ||
            ::snmp_sess_synch_response(session, request, &answer) != STAT_SUCCESS) {
            std::cerr << words[1] << " does not answer\n";
            return 1;
        }
        ::snmp_free_pdu(answer);
    }
    std::cout << static_cast<double>(std::clock() - began) / CLOCKS_PER_SEC << '\n';
}
