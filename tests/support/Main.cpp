#include "support/Sandbox.h"

// Of every test program that does not bring its own.
int main(int argumentCount, char** arguments)
{
    return kel::test::RunTestsInSandbox(argumentCount, arguments);
}
