// Ends at once with 0, whatever it is asked. Staged as a new release, its "-i install" succeeds
// and its service never starts.
int main() { return 0; }
