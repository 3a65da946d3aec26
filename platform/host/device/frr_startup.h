// FRR's startup configuration, which watchfrr writes, and the journal that makes a save atomic.
//
// Seen with 8.4: watchfrr moves the former file to FILE.sav. The new file is root's while it is
// written, line by line; then it gets FRR's owner, is synced, and watchfrr says [OK], also if the
// disk was full.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

struct stat;

namespace ulmo {

// FRR begins each configuration with it.
constexpr std::string_view frr_header = "frr version ";

// To be used under the device's lock, the exclusive one for all that changes something. All throw
// std::system_error.
class FrrStartup {
  public:
    // While FRR writes it, the file is root's in a folder that is not root's, and no one else may
    // read it: then the text may be empty.
    struct File {
        std::string text;
        bool is_open = false;
    };

    FrrStartup(std::filesystem::path file, std::filesystem::path journal);

    [[nodiscard]] const std::filesystem::path &file() const { return file_; }
    // The former file, if FRR has begun to write.
    [[nodiscard]] std::filesystem::path replaced_file() const { return file_.native() + ".sav"; }

    // The startup configuration: during a save the former one, until the new one is whole.
    [[nodiscard]] std::optional<std::string> text() const;
    // The file as it is.
    [[nodiscard]] std::optional<File> stored() const;

    // A save begins, and ends, on the disk.
    void begin_save() const;
    void end_save() const;
    [[nodiscard]] bool has_begun_save() const;
    // Whether the file looks like a part that a save has left. A file that looks so, but has
    // another history, is someone else's. A whole file may rarely look so.
    [[nodiscard]] bool is_torn(const std::optional<File> &file) const;

    // Whether the disk of the file is so full that FRR may lack space while it writes.
    [[nodiscard]] bool space_is_scarce() const;

    // Removes what a killed process has left, if FRR has ended its save.
    void tidy() const;
    // Makes a torn file the former one. Returns whether it was torn. Ends the save.
    [[nodiscard]] bool mend() const;

  private:
    struct Save;

    [[nodiscard]] bool is_open(const struct stat &status) const;
    [[nodiscard]] std::optional<Save> begun_save() const;
    void put_back(const std::string &former) const;

    std::filesystem::path file_;
    std::filesystem::path journal_;
};

} // namespace ulmo
