#include "prepare/prepare.h"

int main(int argc, char* argv[])
{
    return prepare_main(argc, argv);
}
