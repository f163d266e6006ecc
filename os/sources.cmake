bv_sources(
  memory.cpp string.cpp format.cpp
  shell.cpp console.cpp record.cpp text.cpp address.cpp
  time.cpp socket.cpp file.cpp signal.cpp ipc.cpp thread.cpp)
