# What `cmake --install` lays down: the shared library, its framework bundle, headers, CMake package, pkg-config file.
