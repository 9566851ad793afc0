// Finds prime numbers, without a word about being recorded: it is built with -finstrument-functions.

#include <cstdio>
#include <cstdlib>
#include <pthread.h>

struct Range {
    unsigned from, to;
    unsigned count = 0;
};

namespace {

bool divides(unsigned divisor, unsigned number) {
    return number % divisor == 0;
}

bool isPrime(unsigned number) {
    for (unsigned divisor = 2; divisor * divisor <= number; ++divisor) {
        if (divides(divisor, number))
            return false;
    }
    return number > 1;
}

void* countPrimes(void* argument) {
    auto& range = *static_cast<Range*>(argument);
    for (unsigned number = range.from; number < range.to; ++number)
        range.count += isPrime(number);
    return nullptr;
}

} // namespace

int main(int count, char** arguments) {
    const unsigned most = count > 1 ? static_cast<unsigned>(std::atoi(arguments[1])) : 100;
    Range halves[] = {{0, most / 2}, {most / 2, most}};
    pthread_t threads[2];
    for (int i = 0; i < 2; ++i)
        pthread_create(&threads[i], nullptr, countPrimes, &halves[i]);
    for (const pthread_t thread : threads)
        pthread_join(thread, nullptr);
    std::printf("%u primes\n", halves[0].count + halves[1].count);
}
