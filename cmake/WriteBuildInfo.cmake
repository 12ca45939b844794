# Writes the source that defines build_date and build_git_sha.
file(READ ${REVISION_FILE} revision)
string(TIMESTAMP date "%a %b %d %H:%M:%S UTC %Y" UTC)
file(WRITE ${OUT} "extern const char* build_date;
extern const char* build_git_sha;
const char* build_date = \"${date}\";
const char* build_git_sha = \"${revision}\";
")
