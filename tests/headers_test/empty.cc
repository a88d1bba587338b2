// The headers under test come in on the command line.
