# Makes of scdoc's paragraph macros those that have an effect: none beside a heading, one where several
# follow each other, and behind the end of an indented block what stands before it.
/^\.P$/ {
    paragraph = 1
    next
}
/^\.RE$/ {
    print
    next
}
{
    heading = /^\.(TH|SH|SS) /
    if (paragraph && !heading && !afterHeading)
        print ".P"
    print
    paragraph = 0
    afterHeading = heading
}
