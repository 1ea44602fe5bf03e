-- wrk script: POST the JSON body in $RD_BODY to the URL given on the command line.
wrk.method = "POST"
wrk.body = os.getenv("RD_BODY")
wrk.headers["Content-Type"] = "application/json"
wrk.headers["HTTP_ACCESS_TOKEN"] = "anonymous"
