// Has no test: the headers that this program precompiles are those of all the others.
int main() {}
