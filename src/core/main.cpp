#include "core/personality.h"

int main(int argc, char* argv[])
{
    return personality_run(argc, argv);
}
