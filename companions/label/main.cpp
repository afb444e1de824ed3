#include "label/label_tool.h"

int main(int argc, char* argv[])
{
    return label_main(argc, argv);
}
