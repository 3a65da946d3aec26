#include "fake_system_manager.h"

#include <fstream>
#include <sstream>

#include "journal.h"
#include "platform/system_manager.h"

SystemManagerFake fake_system_manager;

void SystemManagerFake::reset() {
    directory = "/startup";
    write_result = 0;
    written.reset();
}

extern "C" {

const char *warden_cli_dir_get(int32_t handle, int32_t which) {
    journal.note("startup directory " + std::to_string(handle) + " " + std::to_string(which));
    return fake_system_manager.directory.c_str();
}

uint32_t warden_cli_write_ascii_cfg(int32_t handle, const char *path) {
    journal.note("write startup " + std::to_string(handle) + " " + path);
    if (std::ifstream file(path); file) {
        std::ostringstream contents;
        contents << file.rdbuf();
        fake_system_manager.written = contents.str();
    }
    return fake_system_manager.write_result;
}

} // extern "C"
