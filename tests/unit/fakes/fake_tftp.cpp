#include "fake_tftp.h"

#include <fstream>
#include <sstream>

#include "journal.h"
#include "platform/tftp_client.h"

TftpFake fake_tftp;

void TftpFake::reset() {
    timeout_result = 0;
    connect_result = 0;
    transfer_result = 0;
    remote_file.reset();
    uploaded.reset();
}

extern "C" {

int tftp_timeout_set(int seconds) {
    journal.note("tftp timeout " + std::to_string(seconds));
    return fake_tftp.timeout_result;
}

int tftp_connect(const char *server, int port) {
    journal.note(std::string("tftp connect ") + server + " " + std::to_string(port));
    return fake_tftp.connect_result;
}

int tftp_put2(const char *local, const char *remote, int flags) {
    journal.note(std::string("tftp put ") + local + " " + remote + " " + std::to_string(flags) +
                 sigchld_disposition());
    if (std::ifstream file(local); file) {
        std::ostringstream contents;
        contents << file.rdbuf();
        fake_tftp.uploaded = contents.str();
    }
    return fake_tftp.transfer_result;
}

int tftp_get2(const char *remote, const char *local, int flags) {
    journal.note(std::string("tftp get ") + remote + " " + local + " " + std::to_string(flags) +
                 sigchld_disposition());
    if (fake_tftp.transfer_result >= 0 && fake_tftp.remote_file) {
        std::ofstream(local) << *fake_tftp.remote_file;
    }
    return fake_tftp.transfer_result;
}

const char *tftp_strerror(int error) {
    fake_tftp.text = "tftp error " + std::to_string(error);
    return fake_tftp.text.c_str();
}

} // extern "C"
