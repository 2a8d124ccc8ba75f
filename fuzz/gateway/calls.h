#pragma once

namespace fuzz {

class Network;

/// Leads the process's calls on sockets to a network; null leads all of them to the kernel again.
void lead(Network* network);

}  // namespace fuzz
