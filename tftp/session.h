// Room: TFTP, from the packet to a whole transfer, with nothing of a switch in it.
// Used by: receiver, transfer.
// May use: base.
//
// Copies of local files to and from one TFTP server, with the results of the C interface
// (platform/tftp_client.h).
#pragma once

#include "tftp/channel.h"

#include <string>

namespace ulmo::tftp {

class Session {
  public:
    // Each returns 0, or the negative result that platform/tftp_client.h describes.
    int set_timeout(int seconds);
    int connect(const std::string &server, int port);
    int put(const std::string &local, const std::string &remote);
    int get(const std::string &remote, const std::string &local);

    // Binds the sockets of later transfers to this network device; empty: to none.
    void bind_to_device(const std::string &device) { server_.device = device; }

    // Upper bounds of the block size and the window size that later transfers request.
    void limit(std::uint16_t block_size, std::uint16_t window_size);

    // What later transfers must keep to: they fail with ETIMEDOUT or, if the remote file is too
    // large, with EFBIG.
    void set_limits(const Limits &limits) { server_.limits = limits; }

    // Octets that the last transfer has sent or stored.
    [[nodiscard]] std::uint64_t moved() const { return moved_; }

    // The meaning of a result, with details if it is the last one.
    [[nodiscard]] std::string text(int result) const;

  private:
    template <typename Work> int guarded(Work &&work);
    [[nodiscard]] const Endpoint &connected() const;

    Endpoint server_;
    int latest_ = 0;
    std::uint64_t moved_ = 0;
    std::string detail_;
};

} // namespace ulmo::tftp
