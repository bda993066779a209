add_executable(bench_analyzer analyzer.cpp)
target_include_directories(bench_analyzer PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(bench_analyzer PRIVATE SelvioFacialCapture selvio_analyzer_rules selvio_options benchmark::benchmark)
