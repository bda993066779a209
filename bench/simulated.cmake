add_executable(bench_simulated simulated.cpp)
target_link_libraries(bench_simulated PRIVATE SelvioFacialCapture::Simulated benchmark::benchmark)
