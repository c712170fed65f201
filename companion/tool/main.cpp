#include "companion/tool/tool.h"

int main(int argc, char** argv) {
    return runTool(argc, argv);
}
