// The smallest application: sets the agent's policy from standard input.

#include <iostream>
#include <iterator>
#include <string>

#include <kel/api.h>

int main()
{
    const std::string policy(std::istreambuf_iterator<char>(std::cin), {});

    const int answer = kel::api::GetControl()->SetPolicy(policy);

    std::cout << "the agent answered " << answer << '\n';
    return answer == 0 ? 0 : 1;
}
