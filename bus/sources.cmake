bv_sources(uloop.cpp blob.cpp blobmsg.cpp ubus.cpp json.cpp)
