# Writes INPUT (the report page) into OUTPUT as the C++ string kReportPage.
# The page is cut into pieces, since a single string literal has a length
# limit in some compilers.
file(READ ${INPUT} page)
string(LENGTH "${page}" length)
set(body "")
set(offset 0)
while(offset LESS length)
  string(SUBSTRING "${page}" ${offset} 8000 piece)
  string(APPEND body "R\"zelph_page(${piece})zelph_page\"\n")
  math(EXPR offset "${offset} + 8000")
endwhile()
file(WRITE ${OUTPUT} "// Generated from ReportPage.html; do not edit.\nnamespace zelph {\nextern const char kReportPage[];\nconst char kReportPage[] =\n${body};\n}  // namespace zelph\n")
