// The shared library's own translation unit: its content comes whole from the static library.
