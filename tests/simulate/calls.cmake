# The calls of the listener that are answered by calls_*.cpp.
set(SIMULATED_CALLS
  accept bind close connect execl fcntl fdopen fileno fopen fork fstat
  getrlimit getsockopt listen mkostemp open poll pselect realpath recv recvfrom
  send setsockopt shutdown sigaction signal sigprocmask socket stat time tmpfile
  truncate unlink waitpid write _exit malloc calloc strdup free)
# The system, and the model of what the listener must do on it.
set(SIMULATED_SYSTEM
  calls_files.cpp
  calls_network.cpp
  calls_process.cpp
  facts.cpp
  life.cpp
  model.cpp
  model_senders.cpp
  model_servers.cpp
  model_texts.cpp
  plan.cpp
  world_descriptors.cpp
  world_outside.cpp
  world_time.cpp)
