#include <string_view>

/// Has the fault that its argument names: "leak", or "overflow", a read behind the end of an array.
int main(int argc, char *argv[])
{
    const std::string_view fault = argc > 1 ? argv[1] : "";
    int *volatile memory = new int[1]{argc};
    const int index = fault == "overflow" ? argc : 0;
    const int value = memory[index];
    if (fault != "leak")
        delete[] memory;
    memory = nullptr;
    return value == argc ? 0 : 1;
}
