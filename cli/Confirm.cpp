#include "cli/Confirm.h"

#include <iostream>
#include <unistd.h>

Result confirm(const std::string& question)
{
    if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0)
        return Result::usage(question + " Nobody can answer here: say --yes");
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer == "y" || answer == "Y" || answer == "yes")
        return Result();
    return Result::failed("nothing was done, as the answer was not yes");
}
