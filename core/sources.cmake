bv_sources(
  hash.cpp
  jhash.cpp
  netlink.cpp
  notifier.cpp
  queue.cpp
  ticks.cpp)
