#include "Commands.h"

int main(int argc, char** argv) {
    return vxtool::RunTool(argc, argv);
}
