bv_sources(mtd.cpp ioctl.cpp sftp.cpp)
