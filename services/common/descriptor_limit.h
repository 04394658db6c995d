// How many descriptors a service may open, and how many of them its clients may take:
// whatever clients send, the service can still read its bus and write files.
//
//   3/4  calls that wait or run (the bus): a descriptor exists in the message, in
//        the parcel and in the handler
//   1/8  what clients leave between calls: DescriptorsForClients()
//   1/8  the service's own: bus, files, the message that is being read
#pragma once

#include <cstddef>

namespace orb::services {

inline constexpr size_t kMostDescriptors = 65536;

// Raises the limit of this process to its hard limit, at most kMostDescriptors, and
// returns the one in force. Before the first use of the bus, which divides it.
size_t RaiseDescriptorLimit();

// How many descriptors a service may keep for all its clients together between their
// calls. Any thread; reads the limit in force.
size_t DescriptorsForClients();

}  // namespace orb::services
