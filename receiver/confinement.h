// What the program gives up before it reads anything that comes over the network.
#pragma once

namespace receiver {

// Gives up every capability, of the superuser too, and the right to gain any. Irrevocable. Throws.
void drop_capabilities();

// Leaves this process, with the threads that it starts from now on, only the system calls that
// serving needs: for all others the kernel pretends not to have them. Among those are opening a
// file, running a program, and sockets other than for IPv4 and IPv6 (but on i386 and s390x, whose
// call for sockets no filter can look into, sockets of all kinds). Irrevocable. Throws.
void confine();

} // namespace receiver
