#include "app/tarnwick_main.h"

int main(int argc, char **argv)
{
    return tarnwickMain(argc, argv);
}
