bv_sources(switches.cpp channel.cpp startup.cpp)
