bv_sources(
  registry.cpp
  template.cpp
  convert.cpp
  instance.cpp
  file_write.cpp
  file_read.cpp
  control.cpp)
