// A network namespace of the test process's own, so that nothing a test sends
// can reach another machine: discovery broadcasts, the network transport's
// fall-back look-up, saned and the net backend on loopback.
#ifndef QUARTO_NETNS_H
#define QUARTO_NETNS_H

#include <string>

namespace qt {

// Moves this process into a network namespace of its own (the first call does;
// later calls only change the route) with its loopback up. With broadcast, the
// default route goes through loopback, so a broadcast to 255.255.255.255
// reaches the sockets of this namespace and nothing else; without, there is no
// route off loopback and such a send fails at once. False, with the reason,
// when no namespace can be made (neither root nor user namespaces).
bool privateNetwork(bool broadcast, std::string* why = nullptr);

}  // namespace qt

#endif
