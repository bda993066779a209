add_executable(bench_simulated simulated.cpp)
target_link_libraries(bench_simulated PRIVATE SelvioFacialCapture::Simulated benchmark::benchmark selvio_options)
target_compile_definitions(bench_simulated PRIVATE SELVIO_SAMPLES="${PROJECT_SOURCE_DIR}/samples")
