/// What a C++ program costs that does nothing but greet and wait for the end of its input.
#include <iostream>
#include <string>

int main() {
    std::cout << "hello" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
    }
}
