// The copy table's values and limits that only the command needs.
#pragma once

#include "copy_client/copy_table.h"
#include "platform/inet_address.h"

#include <cstddef>

namespace config_copy {

using namespace copy_client;

enum class Protocol {
    tftp = COPY_PROTO_TFTP,
    ftp = COPY_PROTO_FTP,
    scp = COPY_PROTO_SCP,
    sftp = COPY_PROTO_SFTP
};
enum class FileType {
    network = COPY_FILE_NETWORK,
    startup = COPY_FILE_STARTUP,
    running = COPY_FILE_RUNNING,
    fabric_startup = COPY_FILE_FABRIC_STARTUP,
    all_startup = COPY_FILE_ALL_STARTUP,
};

inline constexpr std::size_t longest_file_name = CC_FILE_NAME_MAX;
// A name that fills its column empties the password.
inline constexpr std::size_t longest_user_name = CC_CREDENTIAL_SIZE - 1;
inline constexpr std::size_t longest_password = CC_CREDENTIAL_SIZE;

} // namespace config_copy
