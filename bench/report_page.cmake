# The report page with 10,000 models, loaded and sorted in headless Chromium (bench_report_page
# [MODELS] [OUT_DIR]). A plain program: the figures come from the browser, not from a loop here.
add_executable(bench_report_page ${CMAKE_CURRENT_LIST_DIR}/report_page_bench.cpp)
target_link_libraries(bench_report_page PRIVATE vertexmill_options report_page preview cstdmf)
