#include <iostream>

int main() {
    std::cout << "basecaller_1d2: under construction" << std::endl;
    return 0;
}
